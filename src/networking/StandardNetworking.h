#pragma once
// The networking facilities of an environment, with the standard ones where it left a member
// empty. They live here rather than in the environment's own completion so that the platform
// below knows nothing of HTTP.

#include <memory>

#include "quorvel/networking/HttpSession.h"
#include "quorvel/networking/PinValidator.h"
#include "quorvel/platform/Env.h"

namespace qvl::detail {

/// env.transport, or the process's libcurl transport, made on first use.
std::shared_ptr<HttpTransport> transportOf(const Env& env);
/// *env.httpSessionConfiguration, or the defaults.
HttpSessionConfiguration sessionConfigurationOf(const Env& env);
/// *env.pinValidator, or the validator of the context in force, made on first use.
PinValidator& pinValidatorOf(const Env& env);

}  // namespace qvl::detail
