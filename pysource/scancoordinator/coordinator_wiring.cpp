// Construction, the connections to the outside world, and shutdown.

#include "host/destroyable.h"
#include "host/lgtk.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {

CScanCoordinator::CScanCoordinator(PyObject* shell)
    : Body(shell),
      _fIncompleteScansByLoc(records::DictOfSets()),
      _fScanTripleCompletedCount(records::Counter()) {}

_CScanQueue& CScanCoordinator::queue() const {
  if (_fScanQueue.is_none()) {
    pyrt::Raise(PyExc_RuntimeError, "CScanCoordinator.__init__() has not been called");
  }
  return _CScanQueue::From(_fScanQueue.get());
}

void CScanCoordinator::Init(std::int32_t idle_priority, const Object& ana_mgr) {
  static constinit pyrt::Name kQueueLocationsAdded{"_CB_QueueLocationsAdded"};
  if (initialized_) {
    pyrt::Raise(PyExc_RuntimeError, "CScanCoordinator.__init__() was called already");
  }
  fAnaMgr = host::AnalysisManager(ana_mgr);
  const Object info_cache = fAnaMgr.fInfoCache();
  if (!pyrt::IsInstance(info_cache, host::InfoCache::Class())) {
    pyrt::RaiseUnexpected("CInfoCache", info_cache);
  }
  _fInfoCache = host::InfoCache(info_cache);
  _fInferenceEngine = host::InferenceEngine(fAnaMgr.fInferenceEngine());
  fPrefMgr = host::Singletons::Get().fPrefMgr();
  fCacheMgr = host::CacheManager(host::Singletons::Get().fCacheMgr());
  fSingletons = host::Singletons::Get();
  _fIdleScanSuspendCount = 0;

  _fScanQueue = _CScanQueue::New(fAnaMgr.fLocationDataCache());
  host::ConnectWhileAlive(_fScanQueue, "locations-added", Bound(kQueueLocationsAdded), self());
  fIdlePriority = idle_priority;
  fLog = host::Logger("IdleAnalysis");
  ConnectSignals();
  initialized_ = true;
}

void CScanCoordinator::ConnectSignals() {
  using host::lgtk::NoArgCallback;
  using pyrt::Closure;
  static constinit pyrt::Name kActiveEditLinenoChanged{"_CB_ActiveEditLinenoChanged"};
  static constinit pyrt::Name kNeedsScanAdded{"_CB_NeedsScanAdded"};
  const Object coordinator = self();

  const Object suspend = Closure<"on_mod_cache_suspend()", &OnModCacheSuspend>::New(coordinator);
  const Object unsuspend =
      Closure<"on_mod_cache_unsuspend()", &OnModCacheUnsuspend>::New(coordinator);
  const host::AnalysisFactory factory(fAnaMgr.fAnalysisFactory());
  host::ConnectWhileAlive(factory._fModFileCache(), "suspend", NoArgCallback(suspend), coordinator);
  host::ConnectWhileAlive(factory._fModFileCache(), "unsuspend", NoArgCallback(unsuspend),
                          coordinator);
  host::ClassConnectWhileAlive(host::SourceAnalysis::Class(), "modified",
                               Closure<"on_modified(ana)", &OnModified>::New(coordinator),
                               coordinator);
  // The plain connections are never cut: the source keeps the callback, and with it the
  // coordinator, also after destroy().
  host::Connect(
      fSingletons.fSavableMgr(), "external-files-changed",
      Closure<"on_external_mod(savable_mgr, mod_dict)", &OnExternalMod>::New(coordinator));
  host::ClassConnectWhileAlive(
      host::CTextCache(), "text-modified",
      Closure<"on_buffer_change(text_cache, *rest)", &OnBufferChange>::New(coordinator),
      coordinator);
  host::ClassConnectWhileAlive(host::SourceAnalysis::Class(), "active-edit-lineno-changed",
                               Bound(kActiveEditLinenoChanged), coordinator);
  const Object server_changed = Closure<"on_server_changed()", &OnServerChanged>::New(coordinator);
  host::ClassConnectWhileAlive(host::CRemoteServerManager(), "server-stopped",
                               NoArgCallback(server_changed), coordinator);
  host::ClassConnectWhileAlive(host::CContainerInspectorManager(), "server-stopped",
                               NoArgCallback(server_changed), coordinator);
  host::Connect(_fInfoCache.object(), "needs-scan-added", Bound(kNeedsScanAdded));
  const Object resolution_changed =
      Closure<"on_import_resolution_changed()", &OnImportResolutionChanged>::New(coordinator);
  host::Connect(fAnaMgr.fAnalysisFactory(), "import-resolution-changed",
                NoArgCallback(resolution_changed));
}

void CScanCoordinator::Quitting() { __fQuitting = true; }

void CScanCoordinator::_destroy_impl() {
  _CancelIdle();
  if (!__fStatusTimeout.is_none()) host::lgtk::timeout_remove(__fStatusTimeout);
  if (!_fScanQueue.is_none()) host::Destroy(_fScanQueue);  // none if the constructor was skipped
}

// ---------------------------------------------------------------------------------------------
// The closures. Each holds the coordinator and nothing else.

void CScanCoordinator::OnModCacheSuspend(const Object& self) {
  From(self.get()).fWaitingForRemote = true;
}

void CScanCoordinator::OnModCacheUnsuspend(const Object& self) {
  From(self.get()).fWaitingForRemote = false;
}

void CScanCoordinator::OnModified(const Object& self, const Object& ana) {
  const pyrt::List locations = pyrt::List::With(host::fLocation(ana));
  From(self.get()).ClearLastScanInfo(locations.object());
}

// The modification time of the last whole-file check is left alone here and in the next one: the
// check itself finds out.
void CScanCoordinator::OnExternalMod(const Object& self, const Object&, const Object& mod_dict) {
  pyrt::Dict& last_completed = From(self.get())._fLastScanCompleted;
  pyrt::Set changed;
  pyrt::ForEach(mod_dict, [&](const Object& loc) {
    if (last_completed.Contains(loc)) changed.Add(loc);
  });
  pyrt::ForEach(changed.object(), [&](const Object& loc) { last_completed.Discard(loc); });
}

void CScanCoordinator::OnBufferChange(const Object& self, const Object& text_cache) {
  From(self.get())._fLastScanCompleted.Discard(host::fLocation(text_cache));
}

void CScanCoordinator::OnServerChanged(const Object& self) {
  From(self.get())._fRemoteLocationsReady.Clear();
}

void CScanCoordinator::OnImportResolutionChanged(const Object& self) {
  CScanCoordinator& coordinator = From(self.get());
  if (coordinator.fAnaMgr.PythonPathKnown()) {
    if (!coordinator.queue().Empty()) coordinator._ScheduleIdle();
    return;
  }
  if (coordinator._fIdleProcId.is_none()) return;
  host::lgtk::idle_remove(coordinator._fIdleProcId);
  coordinator._fIdleProcId = nullptr;
  host::Emit(self, "end");
}

}  // namespace pysource
