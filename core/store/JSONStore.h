// JSONStore: the one reader and writer of every JSON file the system keeps.
#pragma once

#include "core/base/Json.h"
#include "core/system/fs/FileLock.h"
#include "core/system/Paths.h"
#include "core/system/fs/StoreFile.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::JSONStore {

namespace fs = std::filesystem;
using StoreFile::FileRead;

// Reads and parses the whole file; nothing when it is missing, damaged or not JSON.
std::optional<Json> loadJson(const fs::path& url) noexcept;

// Writes `value` pretty-printed with sorted keys through StoreFile::writeAtomically (temporary file,
// fsync, rename, folder fsync; a linked store is replaced where it lives). Throws like it.
void save(const Json& value, const fs::path& url);

// A decoded store and, when it could not be had, whether the file was missing or damaged.
template <class T>
struct Loaded {
  std::optional<T> value;
  FileRead::Status status = FileRead::Status::missing;  // damaged also when it did not decode
  std::string reason;

  bool damaged() const { return status == FileRead::Status::damaged; }
};

// Reads, parses and decodes with `decode`, keeping the reason when that fails.
template <class T, class Decode>
Loaded<T> loadChecked(const fs::path& url, Decode decode) noexcept {
  Loaded<T> out;
  FileRead file = StoreFile::read(url);
  out.status = file.status;
  if (!file.ok()) {
    out.reason = std::move(file.reason);
    return out;
  }
  out.status = FileRead::Status::damaged;
  auto j = JsonText::parse(file.bytes);
  if (!j) {
    out.reason = "not valid JSON";
    return out;
  }
  try {
    out.value = decode(*j);
    out.status = FileRead::Status::ok;
  } catch (const std::exception& e) {
    out.reason = e.what();
  }
  return out;
}

// Decodes with `decode`; any read, parse or decode error yields nothing.
template <class T, class Decode>
std::optional<T> load(const fs::path& url, Decode decode) noexcept {
  // An undecodable store counts as absent; the next save replaces it.
  return loadChecked<T>(url, decode).value;
}

// Why an update did not happen.
class StoreError : public std::runtime_error {
 public:
  enum class Kind { busy, damaged };
  StoreError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// How long an update waits for another writer of the same store.
inline constexpr std::chrono::milliseconds kUpdateWait{10000};

// The one read-modify-write of a store, so two writers (the agent, the shredder, the app) never
// lose each other's change: under the lock file beside it (Paths::lockFileFor, waited for up to
// `wait`, else StoreError::busy), reads the file (missing: `initial()`; damaged: `initial()`
// when `replaceDamaged`, else StoreError::damaged and nothing is written), lets `change` edit the
// value and saves it when `change` answers true. Returns the value as it now stands. Save errors
// are thrown unchanged.
template <class T, class Decode, class Encode>
T update(const fs::path& file, Decode decode, Encode encode, const std::function<T()>& initial,
         const std::function<bool(T&)>& change, bool replaceDamaged,
         std::chrono::milliseconds wait = kUpdateWait) {
  const auto lock = FileLock::acquire(Paths::lockFileFor(file), wait);
  if (!lock)
    throw StoreError(StoreError::Kind::busy, lock.busy() ? "Another process is writing " + file.string()
                                                         : "Cannot lock " + file.string() + ": " + lock.error.message());
  Loaded<T> loaded = loadChecked<T>(file, decode);
  if (loaded.damaged() && !replaceDamaged)
    throw StoreError(StoreError::Kind::damaged, file.string() + " is damaged (" + loaded.reason + ")");
  T value = loaded.value ? std::move(*loaded.value) : initial();
  if (change(value)) save(encode(value), file);
  return value;
}

}  // namespace kestrel::JSONStore
