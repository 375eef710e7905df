"""What documents point at is there: links, anchors, files, targets of make."""

import re
from pathlib import Path

import docpages
import pytest

# Named although they aren't in a fresh tree: path, and why.
kNotThere = {
    "tests/issues": "made with the first regression test",
    "build/": "results",
}


def name_of(page: Path) -> str:
    return str(page.relative_to(docpages.kRoot))


pages = pytest.mark.parametrize("page", docpages.all_pages(), ids=name_of)


@pages
def test_every_relative_link_leads_somewhere(page):
    broken = []
    for link in docpages.links(page):
        if re.match(r"[a-z][a-z+.-]*:", link):
            continue
        path, _, anchor = link.partition("#")
        target = (page.parent / path).resolve() if path else page
        if not target.exists() or not target.is_relative_to(docpages.kRoot):
            broken.append(link)
        elif anchor and anchor not in docpages.anchors(target):
            broken.append(link)
    assert broken == []


def named_paths(page: Path) -> list[str]:
    """What looks like a path of this project in backticks."""
    tops = {path.name for path in docpages.kRoot.iterdir()} - {".git"}
    found = []
    for span in docpages.code_spans(page):
        for word in span.split():
            if re.fullmatch(r"[\w.*-]+(/[\w.*-]+)*/?", word) and "/" in word:
                top = word.partition("/")[0]
                if top in tops or (page.parent != docpages.kRoot and (page.parent / top).is_dir()):
                    found.append(word)
    return found


@pages
def test_every_file_that_is_named_exists(page):
    missing = []
    for path in named_paths(page):
        if any(path.startswith(known) for known in kNotThere):
            continue
        if not any(any(folder.glob(path)) for folder in (docpages.kRoot, page.parent)):
            missing.append(path)
    assert missing == []


@pages
def test_every_target_of_make_exists(page):
    makefile = (docpages.kRoot / "Makefile").read_text()
    rules = re.findall(r"^([a-z][\w -]*):", makefile, re.M)
    targets = {word for rule in rules for word in rule.split()}
    texts = docpages.code_spans(page)
    texts += [line for block in docpages.blocks(page) for line in block.text.splitlines()]
    named = {match[1] for text in texts if (match := re.match(r"make ([a-z][\w-]*)", text))}
    assert named - targets == set()


def test_exceptions_are_needed():
    named = {path for page in docpages.all_pages() for path in named_paths(page)}
    for known in kNotThere:
        assert known == "build/" or any(path.startswith(known) for path in named)
