"""Finding the Python files of remote trees, with many questions under way at once.

Each folder is a script: a generator that yields the questions that it needs answered and is sent
the answers. Several folders are under way at a time, so that a long way to the server costs little.
What they find comes out of one generator, in steps that are short enough for idle time.
"""

from __future__ import annotations

import posixpath
from collections import deque
from collections.abc import Callable, Generator, Sequence
from dataclasses import dataclass, field
from typing import Final, NamedTuple

from loombase.inspection import CFileKind, CFileState
from loombase.location import CSshFileLocation
from pathspec import GitIgnoreSpec

from loom.ignore import IgnoreRules, kLargestIgnoreFile, rules_of_content
from loom.remote.files import RemoteFiles
from loom.remote.requests import (
    FileContent,
    FolderEntry,
    ListFolder,
    Outcome,
    ReadFile,
    RemoteError,
    Request,
    StatFile,
)
from loom.walk import (
    FoundRemote,
    Problem,
    Step,
    Waiting,
    is_folder_left_out,
    is_left_out,
    looks_like_python,
)
from pysource.utils import IsPythonShebang, kShebangBytes

__all__ = ["RemoteWalk"]

# Folders whose scripts are under way at once.
_FOLDERS_AT_ONCE: Final = 8

# Entries of a folder that are looked at in one step.
_ENTRIES_PER_STEP: Final = 200


def _nobody(_outcome: Outcome) -> None:
    """Where a request's answer goes before its script is known."""


def _stat(path: str, of_link: bool = False) -> StatFile:
    return StatFile(_to_bytes(path), _nobody, of_link=of_link)


def _read(path: str, limit: int, expected: int) -> ReadFile:
    return ReadFile(_to_bytes(path), _nobody, limit=limit, expected=expected)


# Yields questions and is sent an answer for each; none of them is a step that is done.
_Script = Generator[Sequence[Request], Sequence[Outcome], None]


class _Folder(NamedTuple):
    loc: CSshFileLocation
    root: CSshFileLocation
    rules: IgnoreRules | None


@dataclass(slots=True, eq=False)
class _Run:
    """A script under way, with the answers that it still waits for."""

    root: CSshFileLocation
    script: _Script
    answers: list[Outcome | None] = field(default_factory=list)
    missing: int = 0


class RemoteWalk:
    """The Python files at and below `roots`, each once, and what couldn't be looked at.

    Requires: the roots are of one server, and not empty. Goes by the rules of `loom.walk.walk`;
    folders come in any order. Links to files are followed, links to folders aren't. `wake` is
    called when `steps`, which had yielded `Waiting`, may go on.

    When the server is given up, that is one problem of each root that isn't done, and `lost_roots`
    has them. `folder_roots` are the roots that are folders, and `found_urls` all that was found.
    """

    def __init__(
        self,
        files: RemoteFiles,
        roots: Sequence[CSshFileLocation],
        exclude: GitIgnoreSpec | None,
        wake: Callable[[], object],
    ) -> None:
        self.folder_roots: list[CSshFileLocation] = []
        self.lost_roots: set[CSshFileLocation] = set()
        self.found_urls: set[str] = set()
        self._files = files
        self._exclude = exclude
        self._wake = wake
        self._seen_folders: set[CSshFileLocation] = set()
        self._steps_found: deque[Step] = deque()
        self._pending: list[_Folder] = []  # the next one last
        self._runs = 0
        self._ready: deque[_Run] = deque()
        self._server = files.server(roots[0].server)
        for root in dict.fromkeys(roots):
            self._start(root, self._root_script(root))

    def steps(self) -> Generator[Step, None, None]:
        """Walk; yields what it found, none for a step without a find, or `Waiting`."""
        while self._runs or self._pending or self._steps_found:
            while self._steps_found:
                yield self._steps_found.popleft()
            if self._server.crowded():
                yield Waiting()
                continue
            while self._pending and self._runs < _FOLDERS_AT_ONCE:
                folder = self._pending.pop()
                if folder.loc not in self._seen_folders and folder.root not in self.lost_roots:
                    self._seen_folders.add(folder.loc)
                    self._start(folder.root, self._folder_script(folder))
            if self._ready:
                self._continue(self._ready.popleft())
                yield None
            elif self._runs:
                yield Waiting()

    # --- scripts

    def _start(self, root: CSshFileLocation, script: _Script) -> None:
        self._runs += 1
        self._ready.append(_Run(root, script))

    def _continue(self, run: _Run) -> None:
        """Send a script its answers, and ask its next questions."""
        answers = [answer for answer in run.answers if answer is not None]
        if any(isinstance(answer, RemoteError) and answer.server_failed for answer in answers):
            run.script.close()
            self._runs -= 1
            self._lose(run.root, next(a for a in answers if isinstance(a, RemoteError)))
            return
        try:
            questions = run.script.send(answers) if run.answers else next(run.script)
        except StopIteration:
            self._runs -= 1
            return
        run.answers = [None] * len(questions)
        run.missing = len(questions)
        for index, question in enumerate(questions):
            question.done = self._answerer(run, index)
            self._server.ask(question)
        if not questions:
            self._ready.append(run)

    def _answerer(self, run: _Run, index: int) -> Callable[[Outcome], None]:
        def answered(outcome: Outcome) -> None:
            if isinstance(outcome, FileContent):  # small, and used at once
                self._server.release(outcome)
            run.answers[index] = outcome
            run.missing -= 1
            if not run.missing:
                self._ready.append(run)
                self._wake()

        return answered

    def _lose(self, root: CSshFileLocation, error: RemoteError) -> None:
        if root not in self.lost_roots:
            self.lost_roots.add(root)
            self._problem(root, str(error))

    def _problem(self, loc: CSshFileLocation, reason: str) -> None:
        self._steps_found.append(Problem(loc.fUrl, reason))

    def _found(self, loc: CSshFileLocation, state: CFileState, declare: bool) -> None:
        if loc.fUrl not in self.found_urls:
            self.found_urls.add(loc.fUrl)
            self._files.note_state(loc, state)
            self._steps_found.append(FoundRemote(loc, declare))

    def _root_script(self, root: CSshFileLocation) -> _Script:
        around = [root.path, *_folders_around(root.path)]
        state, *marks = yield [
            _stat(root.path),
            *[_stat(posixpath.join(folder, ".git"), of_link=True) for folder in around],
        ]
        if isinstance(state, RemoteError):
            self._problem(root, str(state))
            return
        assert isinstance(state, CFileState)
        if state.kind is CFileKind.FILE:
            self._found(root, state, declare=True)
        elif state.kind is CFileKind.FOLDER:
            known = [
                isinstance(mark, CFileState)
                and mark.kind not in (CFileKind.ABSENT, CFileKind.CLOSED)
                for mark in marks
            ]
            rules = None
            if True in known:
                rules = yield from self._rules_above(root, around[: known.index(True) + 1])
            self.folder_roots.append(root)
            self._pending.append(_Folder(root, root, rules))
        elif state.kind is CFileKind.ABSENT:
            self._problem(root, "No such file or directory")
        else:
            self._problem(root, state.reason or state.kind.value)

    def _rules_above(
        self, root: CSshFileLocation, places: list[str]
    ) -> Generator[Sequence[Request], Sequence[Outcome], IgnoreRules | None]:
        """The rules that a repository has for `root`, but for those in `root` itself.

        `places` are the folders from `root` up to that of the repository. If the rules leave out
        `root` itself they don't count: it was asked for by name.
        """
        top = places[-1]
        exclude, *ignores = yield from self._contents(
            [
                posixpath.join(top, ".git/info/exclude"),
                *[posixpath.join(place, ".gitignore") for place in reversed(places[1:])],
            ]
        )
        rules = rules_of_content(top, exclude, None)
        for below, content in zip(reversed(places[:-1]), ignores, strict=True):
            rules = rules_of_content(posixpath.dirname(below), content, rules)
            if rules is not None and rules.leaves_out(below, is_folder=True):
                return None
        return rules

    def _contents(
        self, paths: Sequence[str]
    ) -> Generator[Sequence[Request], Sequence[Outcome], list[bytes | None]]:
        """What stands in files of rules; none for those that can't be read, or are links."""
        states = yield [_stat(path, of_link=True) for path in paths]
        there = [
            path
            for path, state in zip(paths, states, strict=True)
            if isinstance(state, CFileState) and state.kind is CFileKind.FILE
        ]
        read: dict[str, bytes] = {}
        if there:
            outcomes = yield [_read(path, kLargestIgnoreFile, 4096) for path in there]
            for path, outcome in zip(there, outcomes, strict=True):
                if isinstance(outcome, FileContent):
                    read[path] = outcome.data
        return [read.get(path) for path in paths]

    def _folder_script(self, folder: _Folder) -> _Script:
        (entries,) = yield [ListFolder(folder.loc.fBytesPath, _nobody)]
        if isinstance(entries, RemoteError):
            self._problem(folder.loc, str(entries))
            return
        assert isinstance(entries, list)
        named = [(_to_text(entry.name), entry) for entry in entries if _is_name(entry.name)]
        if len(named) < len(entries):
            self._problem(folder.loc, "the server tells of files whose names can't be names")
        names = {name for name, _ in named}
        path, root = folder.loc.path, folder.root.path
        if path != root and is_folder_left_out(self._exclude, path, root, names):
            return
        rules = folder.rules
        if ".gitignore" in names:
            (content,) = yield from self._contents([posixpath.join(path, ".gitignore")])
            rules = rules_of_content(path, content, rules)
        subfolders: list[CSshFileLocation] = []
        files: list[tuple[str, FolderEntry]] = []
        for count, (name, entry) in enumerate(named, 1):
            if count % _ENTRIES_PER_STEP == 0:
                yield ()
            is_folder = entry.state.kind is CFileKind.FOLDER and not entry.is_link
            is_file = entry.is_link or entry.state.kind is CFileKind.FILE
            if not is_folder and not (is_file and looks_like_python(name)):
                continue
            child = posixpath.join(path, name)
            if is_left_out(child, root, rules, self._exclude, is_folder=is_folder):
                continue
            if is_folder:
                subfolders.append(folder.loc.Child(name))
            else:
                files.append((name, entry))
        yield from self._files_script(folder.loc, sorted(files))
        subfolders.sort(key=lambda loc: loc.path, reverse=True)
        self._pending.extend(_Folder(loc, folder.root, rules) for loc in subfolders)

    def _files_script(
        self, folder: CSshFileLocation, files: list[tuple[str, FolderEntry]]
    ) -> _Script:
        """Tell of the files that are Python; those that may be are looked into."""
        links = [name for name, entry in files if entry.is_link]
        states = {name: entry.state for name, entry in files if not entry.is_link}
        if links:
            targets = yield [_stat(posixpath.join(folder.path, name)) for name in links]
            for name, target in zip(links, targets, strict=True):
                if isinstance(target, CFileState) and target.kind is CFileKind.FILE:
                    states[name] = target
        scripts = [name for name in states if "." not in name]
        others = set(scripts)
        if scripts:
            heads = yield [
                _read(posixpath.join(folder.path, name), kShebangBytes, kShebangBytes)
                for name in scripts
            ]
            for name, head in zip(scripts, heads, strict=True):
                if isinstance(head, FileContent) and IsPythonShebang(head.data):
                    others.discard(name)
        for count, name in enumerate(sorted(states.keys() - others), 1):
            if count % _ENTRIES_PER_STEP == 0:
                yield ()
            self._found(folder.Child(name), states[name], declare="." not in name)


def _folders_around(path: str) -> list[str]:
    """The folders that hold `path`, from the inside."""
    around = []
    while path != "/":
        path = posixpath.dirname(path)
        around.append(path)
    return around


def _is_name(name: bytes) -> bool:
    """Whether it is one name, as a folder's entry must be, and leads nowhere else."""
    return b"/" not in name and b"\0" not in name and name not in (b"", b".", b"..")


def _to_text(name: bytes) -> str:
    return name.decode("utf-8", "surrogateescape")


def _to_bytes(path: str) -> bytes:
    return path.encode("utf-8", "surrogateescape")
