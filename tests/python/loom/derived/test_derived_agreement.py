"""Derived bases are those that Python itself finds, for classes of the standard library."""

import importlib
import sysconfig
from pathlib import Path

import pytest
from derived_samples import Tree
from loombase.location import CLocalFileLocation

MODULES = (
    "argparse http.server logging.handlers socketserver unittest.mock zipfile"
).split()

# What stubs put in, and classes of C that have other names there.
_ABSTRACT = ("typing:", "collections.abc:", "builtins:", "abc:", "_typeshed:")


def names(order: list[str]) -> list[str]:
    """The classes of an order that stubs and sources agree about, without their modules."""
    return [target.partition(":")[2] for target in order if not target.startswith(_ABSTRACT)]


def test_orders_of_classes_agree_with_python(tree: Tree) -> None:
    stdlib = Path(sysconfig.get_path("stdlib"))
    paths = {name: stdlib / f"{name.replace('.', '/')}.py" for name in MODULES}
    paths = {n: p if p.exists() else p.with_suffix("") / "__init__.py" for n, p in paths.items()}
    assert tree.app is not None
    tree.app.coordinator._fAnalyzeFoundImports = True
    tree.scan(*map(str, paths.values()))
    compared = 0
    for name, path in paths.items():
        module = importlib.import_module(name)
        url = CLocalFileLocation(path).fUrl
        facts = tree.facts(str(path))
        scopes = [row[0] for row in tree.rows(
            "SELECT scopes.name FROM scopes JOIN files ON scopes.id >> 24 = files.id"
            " WHERE url = ? ORDER BY scopes.id",
            url,
        )]
        for index, bases in facts.bases.items():
            real = getattr(module, scopes[index], None)
            if isinstance(real, type) and real.__module__ == name:
                order = [f"{cls.__module__}:{cls.__qualname__}" for cls in real.__mro__[1:]]
                assert names(list(bases)) == names(order), scopes[index]
                compared += 1
    assert compared > 40


@pytest.mark.parametrize("name", ["argparse", "socketserver"])
def test_imports_of_the_standard_library_are_found(tree: Tree, name: str) -> None:
    assert tree.app is not None
    tree.app.coordinator._fAnalyzeFoundImports = True
    path = Path(sysconfig.get_path("stdlib"), f"{name}.py")
    tree.scan(str(path))
    imports = tree.facts(str(path)).imports
    assert len(imports) > 4
    assert [key for key, found in imports.items() if not found] == []
