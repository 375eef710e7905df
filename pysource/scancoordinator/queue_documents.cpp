// The documents in view: their scans come forward.
//
// This is a pragmatic link from the queue to the editor. Without a GUI none of it runs.

#include <algorithm>

#include "host/destroyable.h"
#include "host/gui.h"
#include "host/lgtk.h"
#include "host/singletons.h"
#include "pysource/scancoordinator/scan_queue.h"

namespace pysource {

void _CScanQueue::_CB_SingletonChanged() {
  static constinit pyrt::Name kActiveDocChanged{"_CB_ActiveDocChanged"};
  if (!_fGuiMgr.is_none()) return;  // works once
  _fGuiMgr = host::Singletons::Get().fGuiMgr();
  if (_fGuiMgr.is_none()) return;
  host::ConnectWhileAlive(_fGuiMgr, "active-document-changed",
                          host::lgtk::NoArgCallback(Bound(kActiveDocChanged)), self());
}

void _CScanQueue::_CB_ActiveDocChanged() {
  const Object editor_class = host::CSourceEditor();
  const Object doc = host::GetActiveDocument(_fGuiMgr);
  if (!pyrt::IsInstance(doc, editor_class)) return;
  const Object active_loc = host::EditorLocation(doc);
  UpdateForVisibleDocuments(active_loc, host::GetVisibleDocuments(_fGuiMgr));
}

void _CScanQueue::UpdateForVisibleDocuments(const Object& active_loc, const Object& visible_locs) {
  pyrt::Set visible = pyrt::Set::Of(visible_locs);
  if (!active_loc.is_none()) visible.Add(active_loc);
  if (pyrt::Equal(active_loc, _fActiveDocLoc) &&
      pyrt::Equal(visible.object(), _fVisibleDocLocs.object())) {
    return;
  }
  // The active location is handled last, and so ends up in front of the others. Made before
  // anything is stored: asking the locations for their hash and equality may fail.
  std::vector<Location> locations{Location(active_loc)};
  pyrt::ForEach(pyrt::List::Of(visible.object()).object(), [&](const Object& loc) {
    if (!pyrt::Equal(loc, active_loc)) locations.emplace_back(loc);
  });
  _fActiveDocLoc = active_loc;
  _fVisibleDocLocs = visible;

  // One set for the whole call, not one for each location: of all these only the first one handled
  // is promoted for a scan name and priority.
  std::vector<std::pair<Text, Priority>> done;
  for (std::size_t i = locations.size(); i-- > 0;) {
    const LocationPin pin(*store_, locations[i]);
    for (const QueuedScan& scan : SnapshotOf(pin.location())) {
      const Text scan_name = store_->name(scan.scan_name);
      const Priority priority = store_->priority(scan.priority);
      if (std::find(done.begin(), done.end(), std::pair(scan_name, priority)) != done.end()) {
        continue;
      }
      done.emplace_back(scan_name, priority);
      const Object from_queue = _GetSingleQueue(scan_name, priority);
      pyrt::DebugCheck(!from_queue.is_none());
      if (priority <= kInteractivePriority) {
        Own(from_queue).fOrderedDict().Get(pin.id(), true);
      } else {
        const Object to_queue = _GetSingleQueue(scan_name, kInteractivePriority);
        pyrt::DebugCheck(!to_queue.is_none());
        _MoveScansBetweenQueues(pin.location(), Object(), from_queue, to_queue);
      }
    }
  }
}

void _CScanQueue::_MoveScansBetweenQueues(const Location& loc, const Object& names_to_move,
                                          const Object& from_queue, const Object& to_queue) {
  pyrt::DebugCheck(_CSingleScanQueue::Checked(from_queue).fScanName ==
                   _CSingleScanQueue::Checked(to_queue).fScanName);
  const LocationPin pin(*store_, loc);
  const LocId id = pin.id();
  if (pin.record().scans.empty()) return;
  auto& from = Own(from_queue);
  auto& to = Own(to_queue);

  if (!names_to_move.is_none()) {
    // The selective form moves nothing from a location that has scopes, and without any there is
    // no list to search.
    if (from.fOrderedDict().Get(id) == nullptr && pyrt::Size(names_to_move) != 0) {
      pyrt::Raise(PyExc_TypeError, "object of type 'NoneType' has no len()");
    }
    return;
  }
  if (from.fOrderedDict().Get(id) == nullptr) return;
  const Scopes moved = from.fOrderedDict().Take(id);
  const std::vector<Text> to_move(moved.begin(), moved.end());
  const bool moves_whole_file = to_move.front().equals("*");
  const NameId name = store_->InternName(to.fScanName);

  pyrt::AllSteps steps;
  const auto remove = [&](const std::vector<Text>& names, Priority priority) {
    for (const Text& scope_name : names) {
      steps.Run([&] {
        _RemoveScanFromPerLocationMap(pin.location(), scope_name, to.fScanName, priority);
      });
    }
  };
  Scopes* target = to.fOrderedDict().Get(id, true);
  if (target == nullptr) {
    Scopes scopes;
    for (const Text& scope_name : to_move) scopes.Append(scope_name);
    to.fOrderedDict().Set(id, std::move(scopes), true);
  } else if ((*target)[0].equals("*")) {
    remove(to_move, from.fPriority);  // covered already: the moved scopes are gone
    steps.Finish();
    return;
  } else if (moves_whole_file) {
    const std::vector<Text> covered(target->begin(), target->end());
    remove(covered, to.fPriority);
    // The host was called meanwhile: look again.
    if (!IsInUse(to_queue) || store_->FindScan(id, to_move.front(), name) == nullptr) {
      steps.Finish();
      return;
    }
    Scopes whole_file;
    whole_file.Append(to_move.front());
    if (Scopes* left = to.fOrderedDict().Get(id); left != nullptr) {
      const Scopes released = std::exchange(*left, std::move(whole_file));
    } else {
      to.fOrderedDict().Set(id, std::move(whole_file), true);
    }
  } else {
    for (const Text& scope_name : to_move) {
      const Text* place = std::lower_bound(target->begin(), target->end(), scope_name);
      target->Insert(static_cast<std::size_t>(place - target->begin()), scope_name);
    }
  }
  for (const Text& scope_name : to_move) {
    if (QueuedScan* scan = store_->FindScan(id, scope_name, name); scan != nullptr) {
      scan->priority = store_->InternPriority(to.fPriority);
    } else {
      store_->AddScan(id, scope_name, name, to.fPriority);  // between queues for different names
    }
  }
  steps.Finish();
}

}  // namespace pysource
