// kestrel entry point: the same paths as the agent (HOME, XDG folders), then the host runner.
#include <iostream>

#include "host/Host.h"

int main(int argc, char** argv) {
  kestrel::host::Context context{
      kestrel::Paths::fromEnvironment(), std::cout, std::cerr, kestrel::Services{}.withDefaults(),
      kestrel::host::agentBesideSelf(),  false};
  return kestrel::host::runHost({argv + 1, argv + argc}, context);
}
