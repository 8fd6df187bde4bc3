#include "quorvel/Platform/Log.h"

#include <cstdio>
#include <string>

#include "quorvel/Platform/Env.h"

namespace qvl {

void log(std::string_view line) {
  const std::shared_ptr<const Env> env = Env::current();
  if (env->logSink) {
    env->logSink(line);
    return;
  }
  std::string text(line);
  text.push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace qvl
