// A short-lived lock beside an insight file, so two writers never lose each other's samples.
#pragma once

#include "core/storage/FileLock.h"

#include <chrono>
#include <filesystem>
#include <memory>

namespace kestrel {

// Locks "<file>.lock" beside `url` for one read-modify-write, waiting up to `wait` for another
// process to finish. Nothing when the lock cannot be had in time; callers then write unlocked,
// since a history that misses one merge is better than one that stops recording.
std::unique_ptr<FileLock> lockBeside(
    const std::filesystem::path& url,
    std::chrono::milliseconds wait = std::chrono::milliseconds(2000));

}  // namespace kestrel
