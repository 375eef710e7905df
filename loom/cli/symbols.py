"""`loom symbols FILE`: the scopes of a file and what they define."""

from __future__ import annotations

from collections import defaultdict
from collections.abc import Iterator, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any

import click

from loom.cli.kinds import word_for_kind
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json

if TYPE_CHECKING:
    from loom.store.queries import Definition, Scope

__all__ = ["symbols"]


@click.command()
@click.argument("file", type=click.Path(path_type=str))
@shared_options
def symbols(file: str, db_path: Path, as_json: bool, verbose: int) -> int:
    """Show the scopes of FILE as they were when it was scanned, and what each defines.

    Exits with 1 if FILE hasn't been scanned.
    """
    from loom.store import queries
    from loom.store.database import open_read_only, told

    set_up_logging(verbose)
    url = queries.url_of(file)
    connection = open_read_only(db_path)
    try:
        with told(db_path):
            scopes = queries.scopes_of_file(connection, url)
            definitions = queries.definitions_of_file(connection, url)
    finally:
        connection.close()
    if scopes is None or definitions is None:
        if as_json:
            write_json({"path": file, "url": url, "scanned": False, "scopes": []})
        warn(f"{escape(file)} hasn't been scanned into {db_path}")
        return Exit.FINDINGS
    tree = _Tree(scopes, definitions)
    if as_json:
        root = [tree.as_json(index) for index in tree.children[-1]]
        write_json({"path": file, "url": url, "scanned": True, "scopes": root})
    else:
        for line in tree.as_text():
            write(line)
    return Exit.OK


class _Tree:
    """The scopes of a file by parent, with the definitions of each."""

    def __init__(self, scopes: Sequence[Scope], definitions: Sequence[Definition]) -> None:
        self._scopes = scopes
        self.children: defaultdict[int, list[int]] = defaultdict(list)
        for index, scope in enumerate(scopes):
            self.children[scope.parent].append(index)
        self._defined: defaultdict[str, list[Definition]] = defaultdict(list)
        for definition in definitions:
            self._defined[definition.scope].append(definition)

    def as_text(self) -> Iterator[str]:
        """A line for each scope and each definition that isn't a scope itself, indented."""
        pending = [(index, 0) for index in reversed(self.children[-1])]
        while pending:
            index, depth = pending.pop()
            scope = self._scopes[index]
            title = styled(escape(scope.name or "(module)"), bold=True)
            yield f"{_place(scope.lineno)}{'  ' * depth}{word_for_kind(scope.kind)} {title}"
            inner = {self._scopes[child].lineno for child in self.children[index]}
            for definition in self._defined[scope.name]:
                # A function or class is shown by its scope.
                if not (definition.kind in _SCOPE_KINDS and definition.lineno in inner):
                    yield (
                        f"{_place(definition.lineno)}{'  ' * (depth + 1)}"
                        f"{word_for_kind(definition.kind)} {escape(definition.name)}"
                    )
            pending += [(child, depth + 1) for child in reversed(self.children[index])]

    def as_json(self, index: int) -> dict[str, Any]:
        """A scope with its definitions and its inner scopes."""
        scope = self._scopes[index]
        return {
            "name": scope.name,
            "kind": word_for_kind(scope.kind),
            "line": scope.lineno,
            "end_line": scope.end_lineno,
            "definitions": [
                {"name": found.name, "kind": word_for_kind(found.kind), "line": found.lineno}
                for found in self._defined[scope.name]
            ],
            "scopes": [self.as_json(child) for child in self.children[index]],
        }


_SCOPE_KINDS = frozenset("CFMm")


def _place(lineno: int) -> str:
    return f"{lineno:>6}  "
