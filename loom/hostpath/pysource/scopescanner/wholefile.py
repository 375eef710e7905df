"""The scanner of whole files."""

from __future__ import annotations

import logging
from collections.abc import Callable, Generator, Sequence
from typing import TYPE_CHECKING, Final, TypeVar

import singleton
from loombase.location import CLocalFileLocation, CSshFileLocation

from loom import freshness
from loom._pyscan import SourceScanner
from loom.sourcetext import SourceError, SourceText, decode_source
from loom.store.definitions import pack
from loom.store.records import FileRecord, FileTimes, ScopeRow, join_scans

from .base import CScanner, CScanState, ScanSteps, kFinishedScanning, kScanAbandoned
from .scantext import ScanText

if TYPE_CHECKING:
    from pysource.scopeinfo import CInfoCache

__all__ = ["CWholeFilePrimaryScanner", "ItemsInParts", "ScopesOfLines"]

_log = logging.getLogger("loom.scan")

# Bytes scanned between two looks at the clock: a fraction of a millisecond's worth.
_kStepBytes: Final = 64 * 1024

# Scopes or definitions taken or packed between two looks at the clock.
_kItemsPerStep: Final = 2000

# More scopes or definitions than this are no program, but a way to fill the memory. The biggest
# generated modules have some 25,000.
_kMaxItems: Final = 200_000

# A rendered reason is a line of a report, not a dump.
_kMaxReasonLength: Final = 300

_Item = TypeVar("_Item")


class CWholeFilePrimaryScanner(CScanner):
    """Parses a file from its first to its last line and stores what its scopes define.

    A file that holds the very bytes that were parsed before isn't parsed again: the scan ends when
    it is read, and only its new time is stored.

    `incomplete_scope_set` is filled, when the scan is over, with the names of the scopes that
    couldn't be read to their end. What is wrong with a file ends its own scan only: the reason is
    stored with the file. A scan is abandoned if there was nothing to parse.
    """

    def __init__(
        self,
        loc: CLocalFileLocation | CSshFileLocation,
        scan_name: str,
        incomplete_scope_set: set[str],
        log: Callable[..., object],
    ) -> None:
        self._fScanName = scan_name
        self._fIncompleteScopes = incomplete_scope_set
        super().__init__(loc, log)

    def _ScanInSteps(self) -> ScanSteps:
        while True:
            text = SourceText()
            which = ScanText(self.fLocation, text)
            end = yield from self._ScanOnce(text, which)
            if end is not None:
                return end

    def _ScanOnce(
        self, text: SourceText, which: ScanText
    ) -> Generator[CScanState | None, None, CScanState | None]:
        """Scan one text; returns none if by the end there is another one to be scanned."""
        try:
            if not which.unsaved:
                yield from self._ReadSource(text)
                if self._IsAsStored(text):
                    which.TellScopes(self._InfoCache().GetScopeLines(self.fLocation))
                    return kFinishedScanning
                yield from decode_source(text)
            record = yield from self._Parse(text)
        except SourceError as error:
            self.fFileDoesntExist = error.gone
            if error.unreachable:
                self.fLog("Abandoned primary whole file scan: %r: %s", self.fLocation, error)
                return kScanAbandoned
            self._Abandon(text, str(error), error.lasting)
            return kScanAbandoned
        except Exception as error:
            # A fault of ours, and no reason to stop the others.
            _log.exception("scan of %r failed", self.fLocation)
            self._Abandon(text, f"scanner failed: {type(error).__name__}: {error}", True)
            return kScanAbandoned
        if not which.IsCurrent():
            return None
        self._Store(record)
        which.TellScopes([(row[0], row[3], row[4]) for row in record.scopes])
        return kFinishedScanning

    def _IsAsStored(self, text: SourceText) -> bool:
        times = FileTimes(text.mtime_ns, text.size, text.settled)
        return self._InfoCache().RefreshFile(self.fLocation, self._fScanName, text.digest, times)

    def _Parse(self, text: SourceText) -> Generator[None, None, FileRecord]:
        source = SourceScanner(text.data)
        while not source.scan(_kStepBytes):
            yield
        scopes = yield from ItemsInParts(source.scopes, "scopes")
        errors = source.errors()
        self._fIncompleteScopes.clear()
        if errors:
            lines = [lineno for lineno, _ in errors]
            self._fIncompleteScopes.update(scopes[i][0] for i in ScopesOfLines(scopes, lines))
        error, error_lineno = _FirstError(errors, text)
        definitions = yield from ItemsInParts(source.definitions, "definitions")
        packed: list[bytes] = []
        names: dict[str, None] = {}
        for start in range(0, len(definitions), _kItemsPerStep):
            part = definitions[start : start + _kItemsPerStep]
            packed.append(pack(part))
            names.update(dict.fromkeys([name for _, name, _, _ in part]))
            yield
        return FileRecord(
            url=self.fLocation.fUrl,
            mtime_ns=text.mtime_ns,
            size=text.size,
            digest=text.digest,
            scans=join_scans([self._fScanName]),
            error=error,
            error_lineno=error_lineno,
            line_count=text.data.count(b"\n"),
            definition_count=len(definitions),
            imports=b";".join(source.imports()),
            scopes=scopes,
            definitions=b"".join(packed),
            names=list(names),
            exports=source.export_digest(),
            settled=text.settled,
            scanner=freshness.kScannerVersion,
        )

    def _Abandon(self, text: SourceText, reason: str, lasting: bool) -> None:
        """Store why there is nothing of the file; if it is lasting, it isn't tried again."""
        self.fLog("Abandoned primary whole file scan: %r: %s", self.fLocation, reason)
        self._Store(
            FileRecord(
                url=self.fLocation.fUrl,
                mtime_ns=text.mtime_ns,
                size=text.size,
                digest=text.digest,
                scans=join_scans([self._fScanName] if lasting else []),
                error=reason[:_kMaxReasonLength],
                settled=text.settled,
                scanner=freshness.kScannerVersion,
            )
        )

    def _Store(self, record: FileRecord) -> None:
        self._InfoCache().AddFile(self.fLocation, record)

    def _InfoCache(self) -> CInfoCache:
        # Looked up late: the info cache isn't there yet when this module is first imported.
        cache: CInfoCache = singleton.GetSingletons().fAnalysisMgr.fInfoCache
        return cache


def ItemsInParts(
    ask: Callable[[int, int], list[_Item]], what: str
) -> Generator[None, None, list[_Item]]:
    """All items of a long list of the native scanner, fetched in steps."""
    items: list[_Item] = []
    while part := ask(len(items), _kItemsPerStep):
        items += part
        if len(items) > _kMaxItems:
            raise SourceError(f"too many {what}: more than {_kMaxItems:,}", lasting=True)
        yield
    return items


def ScopesOfLines(scopes: Sequence[ScopeRow], lines: Sequence[int]) -> set[int]:
    """The indices of the innermost scopes that hold the lines.

    Requires: the scopes in the order in which they begin.
    """
    found: set[int] = set()
    open_scopes: list[int] = []
    following = 0
    for line in sorted(set(lines)):
        while following < len(scopes) and scopes[following][3] <= line:
            open_scopes.append(following)
            following += 1
        while open_scopes and scopes[open_scopes[-1]][4] < line:
            open_scopes.pop()
        # A line that no scope claims, such as one behind the last, is the module's.
        found.add(open_scopes[-1] if open_scopes else 0)
    return found


def _FirstError(errors: Sequence[tuple[int, str]], text: SourceText) -> tuple[str | None, int]:
    """The reason to store with a file that was scanned, and its line; none if all is well."""
    problems = sorted(errors)
    if text.warning:
        problems.insert(0, (text.warning_lineno, text.warning))
    if not problems:
        return None, 0
    lineno, reason = problems[0]
    if len(problems) > 1:
        reason = f"{reason[:_kMaxReasonLength]} (and {len(problems) - 1} more)"
    return reason[:_kMaxReasonLength], max(lineno, 1)
