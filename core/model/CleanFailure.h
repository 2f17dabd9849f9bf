// CleanFailure: one item a bulk clean or restore could not handle, and why.
#pragma once

#include <string>

namespace kestrel {

struct CleanFailure {
  std::string itemID;
  std::string message;
  bool operator==(const CleanFailure&) const = default;
};

}  // namespace kestrel
