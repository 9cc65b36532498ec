// httptools river --status, --reset, --remove: a river's stored state read and changed.

#include "Commands.h"
#include "RiverTools.h"

#include <HttpTools/HttpTools.h>

#include <chrono>
#include <iostream>

namespace httptools {

namespace {

void PrintState(const qz::river::RiverDefinition& d, const qz::river::RiverStoredState& s) {
  std::cout << "river " << d.name << ": " << d.database << " -> " << d.index;
  if (!s.found) {
    std::cout << " (no stored state in " << d.stateIndex << ")\n";
    return;
  }
  const int64_t now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  std::cout << "\n  index: " << (s.liveIndex.empty() ? "-" : s.liveIndex) << " seq=" << s.seq << "\n";
  if (!s.buildingIndex.empty())
    std::cout << "  building: " << s.buildingIndex << " seq=" << s.buildSeq << "\n";
  if (s.leaseLive)
    std::cout << "  lease: held by " << s.owner << ", " << (s.leaseExpiresMs - now) / 1000.0 << " s left\n";
  else
    std::cout << "  lease: free" << (s.owner.empty() ? "" : " (expired: " + s.owner + ")") << "\n";
}

} // namespace

void RunRiverAdmin(const std::vector<qz::river::RiverDefinition>& rivers, RiverAdminAction action, bool deleteIndex) {
  qz::http::HttpConnectionPool pool;
  Prepare(pool);
  exitCode = kExitOk;
  for (const auto& d : rivers) {
    std::string error;
    bool ok = true;
    switch (action) {
    case RiverAdminAction::Status: {
      qz::river::RiverStoredState state;
      if ((ok = qz::river::ReadRiverState(pool, d, state, &error)))
        PrintState(d, state);
      break;
    }
    case RiverAdminAction::Reset:
      if ((ok = qz::river::ResetRiver(pool, d, &error)))
        std::cout << "river " << d.name << ": filling a new index behind " << d.index
                  << " from seq 0; the alias moves once it has caught up\n";
      break;
    case RiverAdminAction::Remove:
      if ((ok = qz::river::RemoveRiver(pool, d, deleteIndex, &error)))
        std::cout << "river " << d.name << ": state removed" << (deleteIndex ? " with its indices" : "") << "\n";
      break;
    }
    if (!ok) {
      std::cerr << "httptools river: " << d.name << ": " << error << "\n";
      exitCode = kExitFailure;
    }
  }
}

} // namespace httptools
