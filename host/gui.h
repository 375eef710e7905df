// The host's documents: which one is active, which ones are visible.

#ifndef HOST_GUI_H_
#define HOST_GUI_H_

#include "pysource/pyrt/call.h"

namespace host {

// The active document or none.
inline pyrt::Object GetActiveDocument(const pyrt::Object& gui_mgr) {
  static constinit pyrt::Name kName{"GetActiveDocument"};
  return pyrt::CallMethod(gui_mgr, kName);
}

// An iterable of the locations of the visible documents.
inline pyrt::Object GetVisibleDocuments(const pyrt::Object& gui_mgr) {
  static constinit pyrt::Name kName{"GetDocuments"};
  static constinit pyrt::Name kVisibleOnly{"visible_only"};
  static constinit pyrt::Name kIncludeHelp{"include_help"};
  return pyrt::CallMethod(gui_mgr, kName, pyrt::Keyword{kVisibleOnly, pyrt::ToPython(true)},
                          pyrt::Keyword{kIncludeHelp, pyrt::ToPython(false)});
}

// The class CSourceEditor. Its module is imported at the first call, not at start: a host without
// a GUI has none.
inline pyrt::Object CSourceEditor() {
  static constinit pyrt::Name kModule{"edit.editor"};
  static constinit pyrt::Name kName{"CSourceEditor"};
  return pyrt::ModuleAttr(kModule, kName);
}

// The location of a source editor's document.
inline pyrt::Object EditorLocation(const pyrt::Object& editor) {
  static constinit pyrt::Name kCache{"fCache"};
  static constinit pyrt::Name kLocation{"fLocation"};
  return pyrt::GetAttr(pyrt::GetAttr(editor, kCache), kLocation);
}

}  // namespace host

#endif  // HOST_GUI_H_
