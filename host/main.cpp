// kestrel entry point: the same paths as the agent (HOME, XDG folders), then the host runner.
#include <iostream>

#include "core/system/Environment.h"
#include "host/Host.h"

int main(int argc, char** argv) {
  kestrel::host::HostContext context{kestrel::Environment::paths(), std::cout, std::cerr,
                                     kestrel::Environment::services(), kestrel::host::agentBesideSelf(),
                                     false, &std::cin, kestrel::host::Terminal::detect()};
  return kestrel::host::runHost({argv + 1, argv + argc}, context);
}
