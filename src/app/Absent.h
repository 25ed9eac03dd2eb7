#pragma once

// Stand-ins for subsystems that are not part of this build yet. They hold
// nothing, do nothing and say so once in the log, so that the spine runs end
// to end and each subsystem later replaces its stand-in through AppWiring.

#include "core/CatalogPort.h"
#include "core/EnginePort.h"

namespace vt {

class AbsentCatalog final : public CatalogPort {
 public:
  void deferRefresh(Date) override {}
  QCoro::Task<> materialiseExisting() override;
  std::vector<std::string> takeRetiredPlexGroupings() override { return {}; }
  std::set<std::string> protectedIds() const override { return {}; }
  std::vector<MaterialisedCollection> materialisedCollections() const override { return {}; }
  bool isStaging(const std::string&) const override { return false; }
  void finishStaging(const std::string&) override {}
};

class AbsentEngineSupervisor final : public EnginePort {
 public:
  void attach(CatalogPort&) override {}
  QCoro::Task<> prepare(bool) override { co_return; }
  QCoro::Task<> start() override;
  EngineState movieState() const override { return EngineState::stopped; }
  void pruneOrphans(const std::set<std::string>&) override {}
  void kickPlexSync() override {}
  void measureLink(double) override {}
  void stopLogTails() override {}
  void stopPlayIntentHook() override {}
  void shutdownForTestHome() override {}
};

}  // namespace vt
