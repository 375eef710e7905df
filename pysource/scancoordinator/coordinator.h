// Coordinates the scanning of files: the idle loop, the scan drivers, and what the rest of the
// engine calls.
//
// One instance lives for as long as the analysis manager that makes it. It owns the scan queue, and
// holds the live scanners between slices in four mappings, the only memory of a running scan. All
// of it runs on the thread of the host's main loop. The only concurrency is re-entrancy: a scanner
// may make the info cache ask for scans, and the inference engine may scan on the caller's stack.
//
// Nothing below the idle callback catches a failure: it passes through unchanged, and the order of
// the steps decides what is left. Times are seconds on the scale of GetNowTime; an `end_time` is a
// moment, never a duration. A driver returns true while its scan isn't over.
//
// Every virtual operation may be overridden in Python, private names included, and what the system
// itself calls is the override.

#ifndef PYSOURCE_SCANCOORDINATOR_COORDINATOR_H_
#define PYSOURCE_SCANCOORDINATOR_COORDINATOR_H_

#include <cstdint>
#include <optional>

#include "host/analysis_factory.h"
#include "host/analysis_manager.h"
#include "host/buffers.h"
#include "host/inference_engine.h"
#include "host/info_cache.h"
#include "host/scanners.h"
#include "host/services.h"
#include "host/singletons.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {

class CScanCoordinator : public pyrt::Body {
 public:
  static pyrt::ShellClass& Shell();
  static CScanCoordinator& From(PyObject* self) {
    return static_cast<CScanCoordinator&>(Shell().BodyOf(self));
  }

  explicit CScanCoordinator(PyObject* shell);

  // The construction behind the base class's: collaborators, queue, fields, connections.
  void Init(std::int32_t idle_priority, const Object& ana_mgr);

  // -- Virtual operations, in the order of their slots.

  // The host is going down: the next idle call ends itself. Never taken back.
  virtual void Quitting();
  // Removes the idle callback and the timer, and destroys the queue.
  virtual void _destroy_impl();
  // The two pair up; between them no idle callback is scheduled.
  virtual void SuspendIdleScans();
  virtual void ResumeIdleScans();
  // A CScanStatus. Counts files, visits none.
  virtual Object GetStatus();
  // The caret moved: scopes that stayed incomplete are scanned again once it has left them.
  virtual void _CB_ActiveEditLinenoChanged(const Object& ana, std::int64_t new_lineno);
  virtual void _CB_NeedsScanAdded(const Object& info_cache, const Object& needs_scan_added,
                                  MaybePriority priority);
  virtual void AddNeedsScanSetToQueues(const Object& needs_scan_set);
  // Runs the primary scans of a set of triples on the caller's stack, and queues the secondary
  // ones. Returns whether the caller should fetch the information again. `for_loc` and `for_scope`
  // are not used.
  virtual bool TryToScanDictNow(const Object& for_loc, const Object& for_scope,
                                const Object& needs_scan_set, double end_time);
  // Scans one scope now: (false, none, none) if there is no such file, (true, none, none) if its
  // data isn't there yet, a CScopeInfo or none for an instance scope, none otherwise.
  // `do_secondary` has no effect: the list of names decides.
  virtual Object TryToScanNow(const Object& loc, const Text& scope_name,
                              const Object& scan_name_list, double end_time,
                              bool do_secondary = true);
  // Both: a CScopeInfo or none. Require: `scope_name` is an instance scope.
  virtual Object _TryToScanInstanceScopeNow(const Object& loc, const Text& scope_name,
                                            double end_time);
  virtual Object BuildInstanceScopeNoScanning(const Object& loc, const Text& scope_name,
                                              double end_time);
  virtual void _QueueBasicModules(double end_time);
  virtual bool QueuesEmpty(bool include_waiting = true);
  virtual void AddParseablesToQueue(const Object& loc_seq,
                                    MaybePriority priority = kBackgroundPriority);
  virtual bool _CanSendToHelperProcess(const Object& loc, const Object& scope_name);
  virtual void AddPairsToPrimaryQueue(const Object& pairs, bool first = true,
                                      MaybePriority priority = std::nullopt);
  virtual void AddPairsToSecondaryQueue(const Object& pairs, bool first = true,
                                        MaybePriority priority = std::nullopt);
  virtual void _CB_QueueLocationsAdded(const Object& queue, const Object& added);
  virtual void _ScheduleIdle();
  virtual void _CancelIdle();
  virtual bool LocationInPrimaryScanQueue(const Location& loc);
  virtual bool LocationInSecondaryScanQueue(const Location& loc);
  virtual bool LocationInScanQueues(const Location& loc);
  virtual void RemoveLocationsFromQueue(const Object& to_remove);
  // Removes everything that is scheduled, as on a change of project.
  virtual void FlushQueue();
  // One slice of idle work. True: call again; false or none: remove.
  virtual std::optional<bool> _CB_DoIdleAnalysis();
  // The CPySourceAnalysis of a location, or none.
  virtual Object __GetAnalysis(const Object& loc, bool create);
  // Works through the files due for a check. True if it ran out of time.
  virtual bool __CheckWholeFiles(double end_time);
  virtual void __DoScans(double end_time);
  virtual bool _DoSingleScan(const CScanItem& scan_item, double end_time);
  // Location to modification time: -2 for a buffer with unsaved changes, 0 for no file.
  virtual Object __GetModtimeDict(const Object& loc_seq);
  virtual bool __DoPrimarySingleScopeScan(const CScanItem& scan_item, double end_time);
  virtual bool __DoPrimaryWholeFileScan(const CScanItem& scan_item, double end_time);
  virtual bool __DoSecondaryWholeFileScan(const CScanItem& scan_item, double end_time);
  virtual bool __DoSecondarySingleScopeScan(const Object& loc, const Text& scope_name,
                                            double end_time);
  virtual bool _CB_UpdateStatus();
  virtual void __EnsureStatusTimeout();
  virtual void _ScheduleWriteToDatabaseIdle();
  virtual void _CB_WriteToDatabase();

  // -- Plain operations.

  // To be called by the host whenever the helper process has started or gone.
  void _UpdateForHelperProcess();
  // Parks a scan until its scanner signals a change of state.
  void _WaitForScannerToBeReady(const Object& scanner, const CScanItem& scan_item);
  // Queues the modules that import equivalents name. Requires: `dirloc` is ready.
  void __AddImportEquivsToQueue(const Object& imported_equivs, const Object& dirloc,
                                Priority priority);
  // Calls completion_cb(modtime_dict) when all locations are inspected; never if that is aborted.
  void __GetModtimes(const Object& loc_seq, const Object& completion_cb, const Object& force);
  // Forgets when the locations were scanned and checked.
  void ClearLastScanInfo(const Object& loc_iterable);

  // -- Fields, in their declared order.

  host::AnalysisManager fAnaMgr{nullptr};
  host::InfoCache _fInfoCache{nullptr};
  host::InferenceEngine _fInferenceEngine{nullptr};
  Object fPrefMgr;
  host::CacheManager fCacheMgr{nullptr};
  host::Singletons fSingletons{nullptr};
  Object _fScanQueue;   // owned: destroyed with the coordinator
  Object __fActiveLoc;  // of the scan to be continued; compared by identity
  // Live scanners, by location or by (location, scope name).
  pyrt::Dict __fActivePrimaryWholeFileScanners;
  pyrt::Dict __fActivePrimarySingleScopeScanners;
  pyrt::Dict __fActiveSecondaryWholeFileScanners;
  pyrt::Dict __fActiveSecondarySingleScopeScanners;
  pyrt::Dict _fIncompleteScansByLoc;  // a read of a missing key creates an empty set
  pyrt::Dict _fCompletedScanCount;    // never used
  Object _fIdleProcId;
  pyrt::Dict _fMTimeAtLastWholeFileCheck;
  std::int32_t fIdlePriority = 0;
  pyrt::Set __fCompletedLocs;
  Object __fStatusTimeout;
  pyrt::Dict _fLastScanCompleted;  // location to (scope_name, scan_name) to time
  bool __fQuitting = false;
  bool _fAllBasicModuleQueued = false;
  bool _fAnalyzeFoundImports = true;  // the one field that clients may write
  pyrt::Set _fRemoteLocationsReady;
  pyrt::Set _fActiveScanNowTriples;
  pyrt::Set _fPendingScanNowTriples;
  Object fActiveScanItem;
  pyrt::Dict _fScanTripleCompletedCount;  // a missing key reads as 0
  host::Logger fLog;
  double _fActiveIdleStart = -1.0;
  double _fLastLogQueue = -1.0;
  bool fWaitingForRemote = false;
  pyrt::Set _fLocsQueuedInHelper;
  Object _fIdleToWriteToDatabase;
  Object _fHelperCallbackObjConnected;
  std::int64_t _fIdleScanSuspendCount = 0;

  // -- The functions behind the closures. What a closure holds comes first.

  static void OnModCacheSuspend(const Object& self);
  static void OnModCacheUnsuspend(const Object& self);
  static void OnModified(const Object& self, const Object& ana);
  static void OnExternalMod(const Object& self, const Object& savable_mgr, const Object& mod_dict);
  static void OnBufferChange(const Object& self, const Object& text_cache);
  static void OnServerChanged(const Object& self);
  static void OnImportResolutionChanged(const Object& self);
  static void OnScannerStateChange(const Object& held, const Object& scanner);
  static void OnModtimesReady(const Object& held, const Object& abort);
  static void OnHelperLocsAdded(const Object& self, const Object& loc_seq);
  static void OnHelperLocsRemoved(const Object& self, const Object& loc_seq);

  void Traverse(pyrt::Visitor& visit) const noexcept override;
  void Drop() noexcept override;

 private:
  // The queue. RuntimeError if the constructor hasn't run.
  _CScanQueue& queue() const;
  void ConnectSignals();
  std::optional<bool> RunSlice(double slice);
  bool IsPython(const Object& loc);
  bool CompletedTooRecently(const Object& loc, const Object& scope_name, const Object& scan_name,
                            double now) const;
  // One iteration of the loop. False: the slice is over.
  bool DoNextScan(double now, double end_time);
  void CheckBatch(const Object& batch);
  void FollowStoredImports(const pyrt::List& up_to_date, const pyrt::Dict& priorities);
  Object ModtimesOf(const Object& loc_seq);
  Priority ChoosePriority(bool first, MaybePriority priority) const;
  void QueueInstanceScope(const host::Scanner& scanner, const CScanItem& scan_item);
  bool TryToScanTriples(const pyrt::List& triples, double end_time, pyrt::Set& remaining);
  Object ScanPrimaryNow(const Object& loc, const Text& scope_name, double end_time);
  Object ReportMissingClass(const Object& loc, const Object& class_name);
  Object ScopeOfMethod(const Object& information) const;
  void SendLocalScansToHelper(const Object& single_queue);

  bool initialized_ = false;
};

}  // namespace pysource

#endif  // PYSOURCE_SCANCOORDINATOR_COORDINATOR_H_
