"""`loom symbols FILE`: the scopes of a file and what they define."""

from __future__ import annotations

import os
from collections import defaultdict
from collections.abc import Iterator, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any

import click

from loom.cli.kinds import word_for_kind
from loom.cli.options import shared_options
from loom.cli.output import Exit, escape, set_up_logging, styled, warn, write, write_json
from loom.cli.remote import PathOrUrl

if TYPE_CHECKING:
    from loom.store.queries import Definition, Scope

__all__ = ["symbols"]


@click.command()
@click.argument("file", type=PathOrUrl(path_type=str))
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
        write_json({"path": file, "url": url, "scanned": True, "scopes": tree.as_json()})
    else:
        for line in tree.as_text(os.path.basename(file)):
            write(line)
    return Exit.OK


class _Tree:
    """The scopes of a file by parent, with the definitions of each."""

    def __init__(self, scopes: Sequence[Scope], definitions: Sequence[Definition]) -> None:
        self._scopes = scopes
        self._children: defaultdict[int, list[int]] = defaultdict(list)
        for index, scope in enumerate(scopes):
            self._children[scope.parent].append(index)
        self._defined: defaultdict[str, list[Definition]] = defaultdict(list)
        for definition in definitions:
            self._defined[definition.scope].append(definition)

    def as_text(self, module_title: str) -> Iterator[str]:
        """A line for each scope and each definition that isn't a scope itself, indented by depth.

        What a scope holds follows it in order of line numbers.
        """
        pending: list[tuple[int, Definition | int]]  # with the depth, next one last
        pending = [(0, index) for index in reversed(self._children[-1])]
        while pending:
            depth, item = pending.pop()
            indent = "  " * depth
            if not isinstance(item, int):
                yield f"{item.lineno:>6}  {indent}{word_for_kind(item.kind)} {escape(item.name)}"
                continue
            scope = self._scopes[item]
            title = styled(escape(scope.name or module_title), bold=True)
            yield f"{scope.lineno:>6}  {indent}{word_for_kind(scope.kind)} {title}"
            pending += [(depth + 1, inside) for inside in reversed(self._inside(item))]

    def _inside(self, index: int) -> list[Definition | int]:
        """The definitions and inner scopes of a scope in order of lines."""
        children = self._children[index]
        scope_lines = {self._scopes[child].lineno for child in children}
        inside: list[tuple[int, Definition | int]] = [
            (found.lineno, found)
            for found in self._defined[self._scopes[index].name]
            # A function or class is shown by its scope.
            if not (found.kind in _SCOPE_KINDS and found.lineno in scope_lines)
        ]
        inside += [(self._scopes[child].lineno, child) for child in children]
        return [item for _, item in sorted(inside, key=lambda entry: entry[0])]

    def as_json(self) -> list[dict[str, Any]]:
        """The scopes with their definitions; `parent` is an index in this list, -1 for none.

        It isn't nested, since a file may nest its scopes deeper than readers of JSON can follow.
        """
        return [
            {
                "name": scope.name,
                "parent": scope.parent,
                "kind": word_for_kind(scope.kind),
                "line": scope.lineno,
                "end_line": scope.end_lineno,
                "definitions": [
                    {"name": found.name, "kind": word_for_kind(found.kind), "line": found.lineno}
                    for found in self._defined[scope.name]
                ],
            }
            for scope in self._scopes
        ]


_SCOPE_KINDS = frozenset("CFMm")
