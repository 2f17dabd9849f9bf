// Folder watching on macOS: libuv's uv_fs_event (FSEvents underneath) on a loop of its own thread.
#include "core/system/fs/FolderWatcher.h"

#include <uv.h>

#include <memory>
#include <thread>

namespace kestrel {
namespace {

class UvWatcher final : public FolderWatcher {
 public:
  ~UvWatcher() override { stop(); }

  size_t watch(const std::vector<std::filesystem::path>& folders, OnChange onChange) override {
    stop();
    loop_ = std::make_unique<uv_loop_t>();
    if (uv_loop_init(loop_.get()) != 0) {
      loop_.reset();
      return 0;
    }
    onChange_ = std::move(onChange);
    for (const auto& f : folders) {
      auto h = std::make_unique<Handle>();
      h->owner = this;
      h->folder = f;
      if (uv_fs_event_init(loop_.get(), &h->event) != 0) continue;
      h->event.data = h.get();
      if (uv_fs_event_start(&h->event, &UvWatcher::onEvent, f.c_str(), 0) != 0) {
        uv_close(reinterpret_cast<uv_handle_t*>(&h->event), nullptr);
        continue;
      }
      handles_.push_back(std::move(h));
    }
    uv_async_init(loop_.get(), &wake_, &UvWatcher::onWake);
    wake_.data = this;
    const size_t count = handles_.size();
    thread_ = std::thread([this] { uv_run(loop_.get(), UV_RUN_DEFAULT); });
    return count;
  }

  void stop() noexcept override {
    if (!thread_.joinable()) return;
    uv_async_send(&wake_);
    thread_.join();
    uv_loop_close(loop_.get());
    loop_.reset();
    handles_.clear();
  }

 private:
  struct Handle {
    uv_fs_event_t event{};
    UvWatcher* owner = nullptr;
    std::filesystem::path folder;
  };

  static void onEvent(uv_fs_event_t* e, const char*, int, int status) {
    auto* h = static_cast<Handle*>(e->data);
    // An error from the event stream means changes may have been missed: look at everything.
    h->owner->onChange_(status < 0 ? Change{{}, true} : Change{h->folder, false});
  }

  static void onWake(uv_async_t* a) {
    auto* self = static_cast<UvWatcher*>(a->data);
    for (auto& h : self->handles_) {
      uv_fs_event_stop(&h->event);
      uv_close(reinterpret_cast<uv_handle_t*>(&h->event), nullptr);
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&self->wake_), nullptr);
  }

  std::unique_ptr<uv_loop_t> loop_;
  uv_async_t wake_{};
  std::vector<std::unique_ptr<Handle>> handles_;
  OnChange onChange_;
  std::thread thread_;
};

}  // namespace

namespace platform {
std::unique_ptr<FolderWatcher> makeFolderWatcher() { return std::make_unique<UvWatcher>(); }
}  // namespace platform

}  // namespace kestrel
