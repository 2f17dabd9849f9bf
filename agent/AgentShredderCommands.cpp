// The shredder commands: "shred-watch" keeps watching, "shred-now" sweeps once, "shred-history" lists.
#include "agent/Commands.h"

#include "core/base/ByteFormat.h"
#include "core/shredder/ShredderEngine.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/ConfigStore.h"
#include "core/system/fs/LogFile.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace kestrel::agent {
namespace {

constexpr size_t kHistoryLines = 40;

void printEvents(const AgentContext& ctx, const std::vector<ShredEvent>& events, bool notifyEach) {
  if (events.empty()) return;
  int64_t total = 0;
  for (const auto& e : events) {
    ctx.stamp("shredded " + e.name() + " — " + e.reason);
    total += e.size;
  }
  if (notifyEach) {
    for (const auto& e : events)
      ctx.services.notify("Shredder: " + ByteFormat::string(e.size) + " reclaimed", e.name() + " — " + e.reason);
    return;
  }
  std::string body = events.front().name();
  if (events.size() > 1) body += " and " + std::to_string(events.size() - 1) + " more";
  body += " — " + events.front().reason;
  ctx.services.notify("Shredder: " + ByteFormat::string(total) + " reclaimed", body);
}

// The settings a disposal may rely on: a damaged file (the defaults lack the user's protected
// paths) stops the command with the same line a clean prints.
std::optional<AppConfig> loadConfigForRemoval(const AgentContext& ctx) {
  const ConfigStore store(ctx.paths);
  auto loaded = store.loadChecked();
  if (loaded.damaged()) {
    ctx.out << store.damagedMessage(loaded.reason) << '\n';
    ctx.out.flush();
    return std::nullopt;
  }
  return loaded.value.value_or(AppConfig{});
}

// What a sweep that did not run says, for the log. True when the shredder was switched off.
bool reportNotRun(const AgentContext& ctx, const SweepResult& result) {
  if (result.status == SweepResult::Status::off) {
    ctx.stamp("Shredder is off; exiting.");
    return true;
  }
  if (!result.message.empty()) ctx.stamp(result.message);
  return false;
}

}  // namespace

int runShredWatch(AgentContext& ctx) {
  const ShredderStore store(ctx.paths);
  const ShredderSettings settings = store.load();
  if (!settings.approved || !settings.enabled) {
    ctx.stamp("Shredder is off; exiting.");
    return 0;
  }
  const auto config = loadConfigForRemoval(ctx);
  if (!config) return 1;
  // Before this watcher writes its first line; it is the log's only writer.
  LogFile::cutIfLarge(ctx.paths.shredderLogFile());
  ShredderEngine engine(ctx.paths, *config, settings, ctx.services);
  // Every sweep acts on the settings files as they are then, and a change of them is watched.
  engine.followSettingsFiles();
  engine.setDebounce(ctx.services.shredderDebounce);
  const auto tick = std::chrono::duration_cast<std::chrono::steady_clock::duration>(ctx.services.shredderTick);

  std::string names;
  for (const auto& folder : engine.watchedURLs()) names += (names.empty() ? "" : ", ") + folder.filename().string();
  ctx.stamp("Shredder watching: " + names);

  // The engine's thread hands its sweeps over; this thread prints them and runs the timer.
  std::mutex lock;
  std::condition_variable arrived;
  std::deque<SweepResult> pending;
  engine.startWatching([&](const SweepResult& result) {
    std::lock_guard<std::mutex> guard(lock);
    pending.push_back(result);
    arrived.notify_all();
  });
  // The first and the timer's sweeps print nothing of their events.
  auto ownSweep = [&] { return reportNotRun(ctx, engine.sweep(ctx.now())); };
  // Stopped before this frame's queue goes, so no sweep hands results to it while it does.
  if (ownSweep()) return engine.stopWatching(), 0;

  auto next = std::chrono::steady_clock::now() + tick;
  std::unique_lock<std::mutex> guard(lock);
  for (;;) {
    arrived.wait_until(guard, next, [&] { return !pending.empty(); });
    while (!pending.empty()) {
      const SweepResult result = std::move(pending.front());
      pending.pop_front();
      guard.unlock();
      if (reportNotRun(ctx, result)) return engine.stopWatching(), 0;
      printEvents(ctx, result.events, engine.settings().notifyEachEvent);
      guard.lock();
    }
    if (std::chrono::steady_clock::now() < next) continue;
    guard.unlock();
    if (ownSweep()) return engine.stopWatching(), 0;
    next += tick;
    guard.lock();
  }
}

int runShredNow(AgentContext& ctx) {
  const auto config = loadConfigForRemoval(ctx);
  if (!config) return 1;
  ShredderEngine engine(ctx.paths, *config, ShredderStore(ctx.paths).load(), ctx.services);
  const SweepResult result = engine.sweep(ctx.now());
  if (result.status == SweepResult::Status::busy) {
    ctx.out << result.message << '\n';
  } else if (result.events.empty()) {
    ctx.out << "Nothing to shred.\n";
  } else {
    std::string text;
    for (const auto& e : result.events) {
      if (!text.empty()) text += '\n';
      text += e.name() + " — " + e.reason + " (" + ByteFormat::string(e.size) + ")";
    }
    ctx.out << text << '\n';
  }
  ctx.out.flush();
  return 0;
}

int runShredHistory(AgentContext& ctx) {
  for (const auto& e : ShredHistory(ctx.paths).events(kHistoryLines)) {
    ctx.out << Dates::description(e.date) << ' ' << ByteFormat::string(e.size) << '\t' << e.rule << '\t' << e.name()
            << '\n';
  }
  ctx.out.flush();
  return 0;
}

}  // namespace kestrel::agent
