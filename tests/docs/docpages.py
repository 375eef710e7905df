"""The documents of this project, taken apart."""

import re
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from markdown_it import MarkdownIt
from markdown_it.token import Token

kRoot = Path(__file__).resolve().parents[2]

# Folders of results, environments and inputs.
_kNoSources = {"build", "dist", "corpus", "node_modules"}


@dataclass(frozen=True)
class Block:
    """A block of code: where its text begins, in which language, and the text."""

    page: Path
    line: int
    language: str
    text: str

    def __str__(self) -> str:
        return f"{self.page.relative_to(kRoot)}:{self.line}"


def all_pages() -> list[Path]:
    """Every document, hidden folders left out."""
    pages = []
    for folder, folders, files in kRoot.walk():
        folders[:] = [name for name in folders if name not in _kNoSources and name[0] != "."]
        pages += [folder / name for name in files if name.endswith(".md")]
    return sorted(pages)


def user_pages() -> list[Path]:
    """What users read: the README and docs/."""
    return [kRoot / "README.md", *sorted((kRoot / "docs").glob("*.md"))]


def _tokens(page: Path) -> list[Token]:
    return MarkdownIt("commonmark").enable("table").parse(page.read_text())


def blocks(page: Path) -> list[Block]:
    """The blocks of code. One that is only indented has the language ""."""
    found = []
    for token in _tokens(page):
        if token.type in ("fence", "code_block"):
            assert token.map is not None
            first = token.map[0] + (2 if token.type == "fence" else 1)
            found.append(Block(page, first, token.info.strip(), token.content))
    return found


def _inline(page: Path) -> Iterator[Token]:
    for token in _tokens(page):
        yield from token.children or ()


def links(page: Path) -> list[str]:
    """The targets of all links and images."""
    found = []
    for token in _inline(page):
        target = token.attrGet("href") if token.type == "link_open" else None
        if token.type == "image":
            target = token.attrGet("src")
        if target is not None:
            found.append(str(target))
    return found


def code_spans(page: Path) -> list[str]:
    """What stands in backticks within text."""
    return [token.content for token in _inline(page) if token.type == "code_inline"]


def anchors(page: Path) -> set[str]:
    """The anchors of the headings, as GitHub and most others make them."""
    found: set[str] = set()
    tokens = _tokens(page)
    for opening, heading in zip(tokens, tokens[1:], strict=False):
        if opening.type != "heading_open":
            continue
        text = "".join(token.content for token in heading.children or ())
        plain = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
        name, number = plain, 0
        while name in found:
            number += 1
            name = f"{plain}-{number}"
        found.add(name)
    return found
