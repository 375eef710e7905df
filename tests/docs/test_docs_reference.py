"""docs/reference.md is what the stubs say now."""

import subprocess
import sys

import docpages


def test_the_reference_is_up_to_date():
    made = subprocess.run(
        [sys.executable, docpages.kRoot / "scripts" / "make_reference.py", "-"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    assert made == (docpages.kRoot / "docs" / "reference.md").read_text(), (
        "run scripts/make_reference.py"
    )


def test_every_document_is_in_the_index():
    index = {link.partition("#")[0] for link in docpages.links(docpages.kRoot / "docs/README.md")}
    pages = {page.name for page in (docpages.kRoot / "docs").glob("*.md")}
    assert pages - index == {"README.md"}
