// Services: the real clock, tools, prompt, notifications and file-system answers.
#include "core/system/Services.h"

#include "core/system/process/AdminPrompt.h"
#include "core/system/fs/CloudItem.h"
#include "core/system/process/Notification.h"

#include <fcntl.h>
#include <unistd.h>

#include <thread>

namespace kestrel {

Services Services::withDefaults() const {
  Services s = *this;
  if (!s.now) s.now = [] { return std::chrono::system_clock::now(); };
  if (!s.run) s.run = [](const std::string& tool, const std::vector<std::string>& args, double timeout) {
    return Shell::run(tool, args, timeout);
  };
  if (!s.adminPrompt) s.adminPrompt = platform::runAsAdministrator;
  if (!s.notify) s.notify = platform::postNotification;
  if (!s.sleep) s.sleep = [](std::chrono::duration<double> d) { std::this_thread::sleep_for(d); };
  if (!s.isWritable) s.isWritable = [](const std::string& path) {
    return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
  };
  if (!s.removeCloudItem) s.removeCloudItem = [](const std::filesystem::path& p) { platform::coordinatedRemove(p); };
  if (!s.probe) s.probe = [run = s.run](const Paths& paths) { return SystemProbe::current(paths, run); };
  if (!s.makeFolderWatcher) s.makeFolderWatcher = platform::makeFolderWatcher;
  return s;
}

}  // namespace kestrel
