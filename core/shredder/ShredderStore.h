// ShredderStore: the shredder's settings file.
#pragma once

#include "core/shredder/ShredderModel.h"
#include "core/system/Paths.h"

namespace kestrel {

class ShredderStore {
 public:
  explicit ShredderStore(Paths paths) : paths_(std::move(paths)) {}
  // Never fails: a missing, unreadable or undecodable file (one key missing included) gives the
  // defaults as a whole.
  ShredderSettings load() const;
  // Writes every key atomically; throws the file system's error.
  void save(const ShredderSettings& settings) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
