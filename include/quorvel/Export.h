#pragma once
/// @file
/// The library is built with its symbols hidden; what a host may use is marked with
/// QVL_EXPORT and stays visible from the shared library.

#if defined(__GNUC__) || defined(__clang__)
#define QVL_EXPORT __attribute__((visibility("default")))
#else
#define QVL_EXPORT
#endif
