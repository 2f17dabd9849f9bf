// JsonLines: an append-only file of one JSON record per line, written in whole lines and read
// tolerantly (a torn, damaged or overlong line is skipped and counted; the lines around it count).
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

class JsonLines {
 public:
  // Longer lines are skipped without being looked at.
  static constexpr size_t kMaxLine = 1 << 20;

  struct ReadCount {
    size_t taken = 0;    // lines the reader accepted
    size_t skipped = 0;  // lines it rejected, and overlong ones
  };
  // Answers true when the line held a record. Blank lines never reach it.
  using Take = std::function<bool(std::string_view line)>;

  explicit JsonLines(std::filesystem::path url) : url_(std::move(url)) {}
  const std::filesystem::path& url() const { return url_; }

  // Adds the lines (no newlines inside) at the end in one write, creating the file and its folder
  // when needed, after a newline when a killed writer left the last line torn. `durable` flushes
  // the file to the disk. The file is followed through a final symbolic link but never created
  // through a link that leads nowhere, never blocks on a FIFO and is used only when regular.
  // False when nothing could be written (a full disk may leave a torn tail that readers skip).
  bool append(const std::vector<std::string>& lines, bool durable) const noexcept;

  // Every line, oldest first, streamed in fixed-size blocks.
  ReadCount readAll(const Take& take) const;
  // Lines newest first, read from the end in blocks, until `limit` were taken.
  ReadCount readNewestFirst(size_t limit, const Take& take) const;

 private:
  std::filesystem::path url_;
};

}  // namespace kestrel
