// The modules that a scan found imported follow it into the queue, at its own priority.

#include "host/location.h"
#include "host/symbols.h"
#include "pysource/pyrt/values.h"
#include "pysource/scancoordinator/coordinator.h"

namespace pysource {
namespace {

bool IsDotsOnly(const Object& name) {
  const Text text(name);
  return pyrt::Utf8(text).find_first_not_of('.') == std::string_view::npos;
}

// "package.module", or "" for what isn't "module name".
Object DottedName(const pyrt::List& parts) {
  if (parts.size() != 2 || !pyrt::IsTrue(parts[0]) || !pyrt::IsTrue(parts[1])) {
    return pyrt::ToPython("");
  }
  const Text module(parts[0]);
  const bool relative = pyrt::Utf8(module).ends_with('.');
  return pyrt::Format(relative ? "%U%U" : "%U.%U", module, Text(parts[1])).object();
}

// The imported name may be a module, and each package on the way is wanted as well. What doesn't
// resolve drops out later.
void AddFromImport(const Text& rest, pyrt::Set& names) {
  static constinit pyrt::Name kSplit{"split"};
  const pyrt::List parts = pyrt::List::Of(pyrt::CallMethod(rest.object(), kSplit, " "));
  const Object imported = pyrt::Item(parts.object(), 1);
  if (Text(imported).equals("*")) {
    const std::string_view text = pyrt::Utf8(rest);
    names.Add(Text::FromUtf8(text.substr(0, text.size() - 2)).object());
    return;
  }
  Object dotted = DottedName(parts);
  while (pyrt::IsTrue(dotted) && !IsDotsOnly(dotted)) {
    names.Add(dotted);
    dotted = host::symbols::ParentScopeName(dotted);
  }
}

pyrt::Set NamesOf(const Object& imported_equivs) {
  static constinit pyrt::Name kImportKind{"kImportKind"};
  static constinit pyrt::Name kFromImportKind{"kFromImportKind"};
  pyrt::Set names;
  pyrt::ForEach(imported_equivs, [&](const Object& equivs) {
    pyrt::ForEach(host::symbols::NonNestedSplit(equivs).object(), [&](const Object& equiv) {
      const Object kind = host::symbols::GetInfoBytesKind(equiv);
      if (pyrt::Equal(kind, host::symbols::Constant(kImportKind))) {
        names.Add(host::symbols::WithoutPrefix(equiv).object());
      } else if (pyrt::Equal(kind, host::symbols::Constant(kFromImportKind))) {
        AddFromImport(host::symbols::WithoutPrefix(equiv), names);
      }
    });
  });
  return names;
}

}  // namespace

void CScanCoordinator::__AddImportEquivsToQueue(const Object& imported_equivs, const Object& dirloc,
                                                Priority priority) {
  if (pyrt::DebugChecks()) pyrt::DebugCheck(queue().IsTreeBranchReady(Location(dirloc)));
  if (!_fAnalyzeFoundImports) return;
  const host::AnalysisFactory factory(fAnaMgr.fAnalysisFactory());
  const pyrt::Set names = NamesOf(imported_equivs);
  if (names.empty()) return;

  pyrt::List loc_list;
  pyrt::ForEach(factory._FindPrimaryLocsForNames(names, dirloc), [&](const Object& loc) {
    if (!loc.is_none()) loc_list.Append(loc);
  });
  pyrt::List ready_loc_list = loc_list;
  if (queue().fAnyAsyncInspectLocation) {
    ready_loc_list = pyrt::List();
    pyrt::ForEach(loc_list.object(), [&](const Object& loc) {
      if (host::location::IsReady(loc)) ready_loc_list.Append(loc);
    });
  }
  const pyrt::Dict mtimes = pyrt::Dict::Checked(__GetModtimeDict(ready_loc_list.object()));

  // A location that isn't ready is kept, and its check left to the whole-file check.
  pyrt::List changed;
  pyrt::ForEach(loc_list.object(), [&](const Object& loc) {
    const Object mtime = mtimes.Get(loc);
    const Object checked = _fMTimeAtLastWholeFileCheck.Get(loc);
    if (!mtime || !checked || !pyrt::Equal(mtime, checked)) changed.Append(loc);
  });
  if (changed.empty()) return;

  const Text primary_name = fAnaMgr.fPrimaryScanName();
  const Text whole_file = Text::FromUtf8("*");
  pyrt::List pairs_to_add;
  pyrt::ForEach(changed.object(), [&](const Object& loc) {
    const MaybePriority existing =
        queue()._FindScanPriority(Location(loc), whole_file, primary_name);
    if (!existing || *existing > priority) {
      pairs_to_add.Append(pyrt::MakeTuple(loc, whole_file.object()));
    }
  });
  AddPairsToPrimaryQueue(pairs_to_add.object(), false, priority);
}

}  // namespace pysource
