"""Which documents are open, which of them can be seen, and which one is active."""

from __future__ import annotations

from typing import Any

from edit.editor import CSourceEditor
from loombase.destroyable import CDestroyable
from loombase.location import CLocation

__all__ = ["CGuiMgr"]


class CGuiMgr(CDestroyable):
    """The documents of the program around the host. On the command line there are none.

    An embedding program tells here what its user looks at, and the scheduler brings the scans of
    it forward. A document is a `CSourceEditor`, or anything else that the program shows.

    Signals: "active-document-changed" (manager) when another document is active, or others can be
    seen.
    """

    def __init__(self) -> None:
        super().__init__(("active-document-changed",))
        # Whether each can be seen, and whether it is help.
        self._documents: dict[Any, tuple[bool, bool]] = {}
        self._active: Any = None

    def OpenDocument(self, document: Any, visible: bool = True, is_help: bool = False) -> None:
        """Take in a document, or tell that it can be seen now or no more."""
        if self._documents.get(document) != (visible, is_help):
            self._documents[document] = (visible, is_help)
            self.emit("active-document-changed", self)

    def CloseDocument(self, document: Any) -> None:
        """Forget a document. One that isn't open is no error."""
        if self._documents.pop(document, None) is not None:
            if document is self._active:
                self._active = None
            self.emit("active-document-changed", self)

    def SetActiveDocument(self, document: Any) -> None:
        """Tell which document has the focus; one that isn't open yet is opened. May be none."""
        if document is self._active and (document is None or document in self._documents):
            return
        self._active = document
        if document is not None:
            _, is_help = self._documents.get(document, (True, False))
            self._documents[document] = (True, is_help)
        self.emit("active-document-changed", self)

    def GetActiveDocument(self) -> Any:
        """The document that has the focus, or none."""
        return self._active

    def GetDocuments(
        self, visible_only: bool = True, include_help: bool = False
    ) -> list[CLocation]:
        """The locations of the files that are shown, each once, in order of opening."""
        found = {
            document.fCache.fLocation: None
            for document, (visible, is_help) in self._documents.items()
            if isinstance(document, CSourceEditor)
            and (visible or not visible_only)
            and (include_help or not is_help)
        }
        return list(found)
