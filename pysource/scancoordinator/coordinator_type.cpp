// The coordinator as Python sees it.

#include <limits>

#include "host/destroyable.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"
#include "pysource/scancoordinator/dispatch.h"
#include "pysource/scancoordinator/types.h"

namespace pysource {
namespace {

#define DISPATCH(...) PYSOURCE_DISPATCH(CScanCoordinator, __VA_ARGS__)
// A private operation, under the name that Python's own rule gives it.
#define DISPATCH_PRIVATE(Result, Operation, ...)                                            \
  PYSOURCE_DISPATCH_AS(CScanCoordinator, Result, Operation, "_CScanCoordinator" #Operation, \
                       __VA_ARGS__)
#define METHOD(...) PYSOURCE_METHOD(CScanCoordinator, __VA_ARGS__)

// In the order of the slots.
class CoordinatorDispatcher final : public CScanCoordinator {
 public:
  using CScanCoordinator::CScanCoordinator;

  DISPATCH(void, Quitting, ())
  DISPATCH(void, _destroy_impl, ())
  DISPATCH(void, SuspendIdleScans, ())
  DISPATCH(void, ResumeIdleScans, ())
  DISPATCH(Object, GetStatus, ())
  DISPATCH(void, _CB_ActiveEditLinenoChanged, (const Object& ana, std::int64_t new_lineno), ana,
           new_lineno)
  DISPATCH(void, _CB_NeedsScanAdded,
           (const Object& info_cache, const Object& needs_scan_added, MaybePriority priority),
           info_cache, needs_scan_added, priority)
  DISPATCH(void, AddNeedsScanSetToQueues, (const Object& needs_scan_set), needs_scan_set)
  DISPATCH(bool, TryToScanDictNow,
           (const Object& for_loc, const Object& for_scope, const Object& needs_scan_set,
            double end_time),
           for_loc, for_scope, needs_scan_set, end_time)
  DISPATCH(Object, TryToScanNow,
           (const Object& loc, const Text& scope_name, const Object& scan_name_list,
            double end_time, bool do_secondary),
           loc, scope_name, scan_name_list, end_time, do_secondary)
  DISPATCH(Object, _TryToScanInstanceScopeNow,
           (const Object& loc, const Text& scope_name, double end_time), loc, scope_name, end_time)
  DISPATCH(Object, BuildInstanceScopeNoScanning,
           (const Object& loc, const Text& scope_name, double end_time), loc, scope_name, end_time)
  DISPATCH(void, _QueueBasicModules, (double end_time), end_time)
  DISPATCH(bool, QueuesEmpty, (bool include_waiting), include_waiting)
  DISPATCH(void, AddParseablesToQueue, (const Object& loc_seq, MaybePriority priority), loc_seq,
           priority)
  DISPATCH(bool, _CanSendToHelperProcess, (const Object& loc, const Object& scope_name), loc,
           scope_name)
  DISPATCH(void, AddPairsToPrimaryQueue, (const Object& pairs, bool first, MaybePriority priority),
           pairs, first, priority)
  DISPATCH(void, AddPairsToSecondaryQueue,
           (const Object& pairs, bool first, MaybePriority priority), pairs, first, priority)
  DISPATCH(void, _CB_QueueLocationsAdded, (const Object& queue, const Object& added), queue, added)
  DISPATCH(void, _ScheduleIdle, ())
  DISPATCH(void, _CancelIdle, ())
  DISPATCH(bool, LocationInPrimaryScanQueue, (const Location& loc), loc)
  DISPATCH(bool, LocationInSecondaryScanQueue, (const Location& loc), loc)
  DISPATCH(bool, LocationInScanQueues, (const Location& loc), loc)
  DISPATCH(void, RemoveLocationsFromQueue, (const Object& to_remove), to_remove)
  DISPATCH(void, FlushQueue, ())
  DISPATCH(std::optional<bool>, _CB_DoIdleAnalysis, ())
  DISPATCH_PRIVATE(Object, __GetAnalysis, (const Object& loc, bool create), loc, create)
  DISPATCH_PRIVATE(bool, __CheckWholeFiles, (double end_time), end_time)
  DISPATCH_PRIVATE(void, __DoScans, (double end_time), end_time)
  DISPATCH(bool, _DoSingleScan, (const CScanItem& scan_item, double end_time), scan_item, end_time)
  DISPATCH_PRIVATE(Object, __GetModtimeDict, (const Object& loc_seq), loc_seq)
  DISPATCH_PRIVATE(bool, __DoPrimarySingleScopeScan, (const CScanItem& scan_item, double end_time),
                   scan_item, end_time)
  DISPATCH_PRIVATE(bool, __DoPrimaryWholeFileScan, (const CScanItem& scan_item, double end_time),
                   scan_item, end_time)
  DISPATCH_PRIVATE(bool, __DoSecondaryWholeFileScan, (const CScanItem& scan_item, double end_time),
                   scan_item, end_time)
  DISPATCH_PRIVATE(bool, __DoSecondarySingleScopeScan,
                   (const Object& loc, const Text& scope_name, double end_time), loc, scope_name,
                   end_time)
  DISPATCH(bool, _CB_UpdateStatus, ())
  DISPATCH_PRIVATE(void, __EnsureStatusTimeout, ())
  DISPATCH(void, _ScheduleWriteToDatabaseIdle, ())
  DISPATCH(void, _CB_WriteToDatabase, ())
};

std::vector<PyMethodDef> Methods() {
  return {
      METHOD(Quitting, "Quitting()",
             "The host is going down: the next idle call ends itself. Never taken back."),
      METHOD(
          _destroy_impl, "_destroy_impl()",
          "Removes the idle callback and the timer and destroys the queue. Called by destroy()."),
      METHOD(SuspendIdleScans, "SuspendIdleScans()",
             "Stops idle scanning until the matching ResumeIdleScans()."),
      METHOD(ResumeIdleScans, "ResumeIdleScans()", "Takes one SuspendIdleScans() back."),
      METHOD(GetStatus, "GetStatus()", "The state of the queues as a CScanStatus."),
      METHOD(_CB_ActiveEditLinenoChanged, "_CB_ActiveEditLinenoChanged(ana, new_lineno)",
             "The caret moved in a file; new_lineno is -1 for no line.\n\n"
             "Queues the scopes that stayed incomplete, but for the one that holds the line."),
      METHOD(_CB_NeedsScanAdded, "_CB_NeedsScanAdded(info_cache, needs_scan_added, priority)",
             "The info cache needs scans: triples (location, scope name, scan name).\n\n"
             "priority: None for that of the running scan, or interactive."),
      METHOD(AddNeedsScanSetToQueues, "AddNeedsScanSetToQueues(needs_scan_set)",
             "Queues the scans of an iterable of triples (location, scope name, scan name)."),
      METHOD(TryToScanDictNow, "TryToScanDictNow(for_loc, for_scope, needs_scan_set, end_time)",
             "Runs the primary scans of a set of triples now and queues the secondary ones.\n\n"
             "end_time: deadline in seconds of time.time(). Returns whether the caller should\n"
             "fetch the information again. for_loc and for_scope are not used."),
      METHOD(TryToScanNow,
             "TryToScanNow(loc, scope_name, scan_name_list, end_time, do_secondary=True)",
             "Scans one scope now, by the scan names given or, for None, both.\n\n"
             "Returns (False, None, None) if the file doesn't exist, (True, None, None) if its\n"
             "contents aren't available yet, a CScopeInfo or None for an instance scope, and None\n"
             "otherwise. do_secondary has no effect."),
      METHOD(_TryToScanInstanceScopeNow, "_TryToScanInstanceScopeNow(loc, scope_name, end_time)",
             "The CScopeInfo of an instance scope, or None; may scan until end_time."),
      METHOD(BuildInstanceScopeNoScanning,
             "BuildInstanceScopeNoScanning(loc, scope_name, end_time)",
             "The CScopeInfo of an instance scope from what the cache holds, or None.\n\n"
             "Queues what is missing. end_time is not used."),
      METHOD(_QueueBasicModules, "_QueueBasicModules(end_time)",
             "Queues builtins, typing and the basic modules, once they are known."),
      METHOD(QueuesEmpty, "QueuesEmpty(include_waiting=True)",
             "Whether nothing is queued, here or with the helper process."),
      METHOD(AddParseablesToQueue, "AddParseablesToQueue(loc_seq, priority=2)",
             "Queues whole-file scans of those locations that the analysis can read."),
      METHOD(_CanSendToHelperProcess, "_CanSendToHelperProcess(loc, scope_name)",
             "Whether it is a whole local file without an open buffer."),
      METHOD(AddPairsToPrimaryQueue, "AddPairsToPrimaryQueue(pairs, first=True, priority=None)",
             "Queues primary scans of (location, scope name) pairs.\n\n"
             "Without a priority that of the running scan is taken, or else interactive if first\n"
             "is true, background if not."),
      METHOD(AddPairsToSecondaryQueue, "AddPairsToSecondaryQueue(pairs, first=True, priority=None)",
             "Queues secondary scans of the pairs whose files want derived information."),
      METHOD(_CB_QueueLocationsAdded, "_CB_QueueLocationsAdded(queue, added)",
             "Locations were added to the queue."),
      METHOD(_ScheduleIdle, "_ScheduleIdle()",
             "Registers the idle callback, unless it is, or scanning is suspended or impossible."),
      METHOD(_CancelIdle, "_CancelIdle()", "Removes the idle callback."),
      METHOD(LocationInPrimaryScanQueue, "LocationInPrimaryScanQueue(loc)",
             "Whether primary scans of the location are queued."),
      METHOD(LocationInSecondaryScanQueue, "LocationInSecondaryScanQueue(loc)",
             "Whether secondary scans of the location are queued."),
      METHOD(LocationInScanQueues, "LocationInScanQueues(loc)",
             "Whether any scans of the location are queued."),
      METHOD(RemoveLocationsFromQueue, "RemoveLocationsFromQueue(to_remove)",
             "Removes all scans of an iterable of locations."),
      METHOD(FlushQueue, "FlushQueue()", "Removes everything that is scheduled."),
      METHOD(_CB_DoIdleAnalysis, "_CB_DoIdleAnalysis()",
             "One slice of idle work. True: call again; False or None: remove."),
      METHOD(__GetAnalysis, "_CScanCoordinator__GetAnalysis(loc, create)",
             "The CPySourceAnalysis of a location, or None."),
      METHOD(__CheckWholeFiles, "_CScanCoordinator__CheckWholeFiles(end_time)",
             "Takes files out of the queue whose results are still valid. True if out of time."),
      METHOD(__DoScans, "_CScanCoordinator__DoScans(end_time)", "Scans until end_time."),
      METHOD(_DoSingleScan, "_DoSingleScan(scan_item, end_time)",
             "Carries one scan forward. True if it isn't over."),
      METHOD(__GetModtimeDict, "_CScanCoordinator__GetModtimeDict(loc_seq)",
             "Location to modification time: -2 for unsaved changes, 0 for no file.\n\n"
             "All locations must be ready."),
      METHOD(__DoPrimarySingleScopeScan,
             "_CScanCoordinator__DoPrimarySingleScopeScan(scan_item, end_time)",
             "Driver of the primary scan of one scope. True if it isn't over."),
      METHOD(__DoPrimaryWholeFileScan,
             "_CScanCoordinator__DoPrimaryWholeFileScan(scan_item, end_time)",
             "Driver of the primary scan of a file. True if it isn't over."),
      METHOD(__DoSecondaryWholeFileScan,
             "_CScanCoordinator__DoSecondaryWholeFileScan(scan_item, end_time)",
             "Driver of the secondary scan of a file. True if it isn't over."),
      METHOD(__DoSecondarySingleScopeScan,
             "_CScanCoordinator__DoSecondarySingleScopeScan(loc, scope_name, end_time)",
             "Driver of the secondary scan of one scope. True if it isn't over."),
      METHOD(_CB_UpdateStatus, "_CB_UpdateStatus()",
             "Emits \"scan-status-update\". True: call again."),
      METHOD(__EnsureStatusTimeout, "_CScanCoordinator__EnsureStatusTimeout()",
             "Starts the status timer if anything is queued."),
      METHOD(_ScheduleWriteToDatabaseIdle, "_ScheduleWriteToDatabaseIdle()",
             "Lets the info cache write to its database in a later idle call."),
      METHOD(_CB_WriteToDatabase, "_CB_WriteToDatabase()", "Writes to the database now."),
      METHOD(_UpdateForHelperProcess, "_UpdateForHelperProcess()",
             "To be called by the host when the helper process has started or gone."),
      METHOD(_WaitForScannerToBeReady, "_WaitForScannerToBeReady(scanner, scan_item)",
             "Parks a scan until its scanner signals a change of state."),
      METHOD(__AddImportEquivsToQueue,
             "_CScanCoordinator__AddImportEquivsToQueue(imported_equivs, dirloc, priority)",
             "Queues the modules that import equivalents name, as seen from a directory."),
      METHOD(__GetModtimes, "_CScanCoordinator__GetModtimes(loc_seq, completion_cb, force=False)",
             "Calls completion_cb(modtime_dict) once all locations are inspected."),
      METHOD(ClearLastScanInfo, "ClearLastScanInfo(loc_iterable)",
             "Forgets when the locations were last scanned and checked."),
  };
}

template <pyrt::FixedText kName, pyrt::FixedText kDoc, auto kGetter>
using CoordinatorField = pyrt::Field<kName, kDoc, CScanCoordinator, kGetter>;

#define FIELD_AS(name, python_name, doc) \
  CoordinatorField<python_name, doc,     \
                   [](auto& coordinator) { return pyrt::ToPython(coordinator.name); }>::Def()
#define FIELD(name, doc) FIELD_AS(name, #name, doc)
#define PRIVATE_FIELD(name, doc) FIELD_AS(name, "_CScanCoordinator" #name, doc)
// A collaborator, as the object that it is.
#define OBJECT_FIELD(name, doc) FIELD_AS(name.object(), #name, doc)

int SetAnalyzeFoundImports(PyObject* self, PyObject* value, void*) {
  return pyrt::Guard([&] {
    if (value == nullptr) {
      pyrt::Raise(PyExc_AttributeError, "_fAnalyzeFoundImports cannot be deleted");
    }
    CScanCoordinator::From(self)._fAnalyzeFoundImports = pyrt::FromPython<bool>(value);
  });
}

std::vector<PyGetSetDef> Fields() {
  return {
      OBJECT_FIELD(fAnaMgr, "The analysis manager."),
      OBJECT_FIELD(_fInfoCache, "The store of scan results."),
      OBJECT_FIELD(_fInferenceEngine, "The inference engine."),
      FIELD(fPrefMgr, "The preference manager."),
      OBJECT_FIELD(fCacheMgr, "The cache manager."),
      OBJECT_FIELD(fSingletons, "The host's service table."),
      FIELD(_fScanQueue, "The queue of pending scans."),
      PRIVATE_FIELD(__fActiveLoc, "The location of the scan to be continued, or None."),
      PRIVATE_FIELD(__fActivePrimaryWholeFileScanners, "Live scanners by location."),
      PRIVATE_FIELD(__fActivePrimarySingleScopeScanners,
                    "Live scanners by (location, scope name)."),
      PRIVATE_FIELD(__fActiveSecondaryWholeFileScanners, "Live scanners by location."),
      PRIVATE_FIELD(__fActiveSecondarySingleScopeScanners,
                    "Live scanners by (location, scope name)."),
      FIELD(_fIncompleteScansByLoc,
            "Location to the set of scope names that stayed incomplete; live, with defaults."),
      FIELD(_fCompletedScanCount, "Unused."),
      FIELD(_fIdleProcId, "The id of the scheduled idle callback, or None."),
      FIELD(_fMTimeAtLastWholeFileCheck,
            "Location to the modification time that its last check saw."),
      CoordinatorField<"fIdlePriority", "The priority of the idle callback, on the host's scale.",
                       [](auto& coordinator) {
                         return std::int64_t{coordinator.fIdlePriority};
                       }>::Def(),
      PRIVATE_FIELD(__fCompletedLocs, "Locations with a finished secondary scan."),
      PRIVATE_FIELD(__fStatusTimeout, "The id of the status timer, or None."),
      FIELD(_fLastScanCompleted,
            "Location to a mapping (scope_name, scan_name) to the time of the last scan."),
      PRIVATE_FIELD(__fQuitting, "Whether Quitting() was called."),
      FIELD(_fAllBasicModuleQueued, "Whether the basic modules have been queued."),
      CoordinatorField<"_fAnalyzeFoundImports",
                       "Whether the modules that a scan found imported are queued; writable.",
                       [](auto& coordinator) {
                         return coordinator._fAnalyzeFoundImports;
                       }>::Def(&SetAnalyzeFoundImports),
      FIELD(_fRemoteLocationsReady, "Stays empty."),
      FIELD(_fActiveScanNowTriples, "Triples that are being scanned for a caller that waits."),
      FIELD(_fPendingScanNowTriples, "Triples that a call on the stack means to scan."),
      FIELD(fActiveScanItem, "The CScanItem being scanned in the idle loop, or None."),
      FIELD(_fScanTripleCompletedCount, "Triple to the number of times that it finished."),
      OBJECT_FIELD(fLog, "The CLogger of the class, named \"IdleAnalysis\"."),
      FIELD(_fActiveIdleStart, "When the present run of idle work began, in seconds; or -1.0."),
      FIELD(_fLastLogQueue, "When the queue was last dumped to the log, in seconds; or -1.0."),
      FIELD(fWaitingForRemote, "While true nothing is scanned."),
      FIELD(_fLocsQueuedInHelper, "Locations believed to be queued in the helper process."),
      FIELD(_fIdleToWriteToDatabase, "The id of the scheduled database write, or None."),
      FIELD(_fHelperCallbackObjConnected, "The helper callback object connected to, or None."),
      FIELD(_fIdleScanSuspendCount, "Calls of SuspendIdleScans() that are not taken back."),
  };
}

int InitCoordinator(PyObject* self, PyObject* args, PyObject* kwargs) {
  return pyrt::Guard([&] {
    const auto [idle_priority, ana_mgr] =
        pyrt::BindInit<"CScanCoordinator(idle_priority, ana_mgr)">(args, kwargs);
    const auto priority = pyrt::FromPython<std::int64_t>(idle_priority);
    if (priority < std::numeric_limits<std::int32_t>::min() ||
        priority > std::numeric_limits<std::int32_t>::max()) {
      pyrt::Raise(PyExc_OverflowError, "idle_priority does not fit 32 bits");
    }
    const Object manager = Object::Share(ana_mgr);
    host::InitDestroyable(CScanCoordinator::Shell().base(), Object::Share(self), "scheduled", "end",
                          "scan-status-update", "modtimes-updated");
    CScanCoordinator::From(self).Init(static_cast<std::int32_t>(priority), manager);
  });
}

}  // namespace

pyrt::ShellClass& CScanCoordinator::Shell() {
  static auto* const shell = new pyrt::ShellClass;
  return *shell;
}

void CScanCoordinator::Traverse(pyrt::Visitor& visit) const noexcept {
  visit.All(
      fAnaMgr.object(), _fInfoCache.object(), _fInferenceEngine.object(), fPrefMgr,
      fCacheMgr.object(), fSingletons.object(), _fScanQueue, __fActiveLoc,
      __fActivePrimaryWholeFileScanners.object(), __fActivePrimarySingleScopeScanners.object(),
      __fActiveSecondaryWholeFileScanners.object(), __fActiveSecondarySingleScopeScanners.object(),
      _fIncompleteScansByLoc.object(), _fCompletedScanCount.object(), _fIdleProcId,
      _fMTimeAtLastWholeFileCheck.object(), __fCompletedLocs.object(), __fStatusTimeout,
      _fLastScanCompleted.object(), _fRemoteLocationsReady.object(),
      _fActiveScanNowTriples.object(), _fPendingScanNowTriples.object(), fActiveScanItem,
      _fScanTripleCompletedCount.object(), fLog.object(), _fLocsQueuedInHelper.object(),
      _fIdleToWriteToDatabase, _fHelperCallbackObjConnected);
}

// The containers are objects of their own, which the collector clears by itself.
void CScanCoordinator::Drop() noexcept {
  const auto drop = [](auto& field) {
    using Field = std::remove_reference_t<decltype(field)>;
    const Field dropped = std::exchange(field, Field(nullptr));
  };
  drop(fAnaMgr);
  drop(_fInfoCache);
  drop(_fInferenceEngine);
  drop(fPrefMgr);
  drop(fCacheMgr);
  drop(fSingletons);
  drop(_fScanQueue);
  drop(__fActiveLoc);
  drop(_fIdleProcId);
  drop(__fStatusTimeout);
  drop(fActiveScanItem);
  drop(_fIdleToWriteToDatabase);
  drop(_fHelperCallbackObjConnected);
}

void CreateScanCoordinatorType(const Object& module, const Object& base) {
  CScanCoordinator::Shell().Create(
      module, base,
      {"pysource.scancoordinator.CScanCoordinator",
       "CScanCoordinator(idle_priority, ana_mgr)\n--\n\n"
       "Coordinates the scanning of files.\n\n"
       "idle_priority: 32-bit integer, on the scale of the host's idle_add; ana_mgr: the analysis\n"
       "manager. TypeError if its fInfoCache is no CInfoCache, OverflowError for a priority out "
       "of\n"
       "range; failures of collaborators pass through.",
       &InitCoordinator, Methods(), Fields(), [](PyObject* self) -> std::unique_ptr<pyrt::Body> {
         return std::make_unique<CoordinatorDispatcher>(self);
       }});
  pyrt::SetAttr(module, "CScanCoordinator", CScanCoordinator::Shell().type());
  pyrt::SetAttr(module, "_CScanQueue", _CScanQueue::Shell().type());
  pyrt::SetAttr(module, "_CSingleScanQueue", _CSingleScanQueue::Shell().type());
}

}  // namespace pysource
