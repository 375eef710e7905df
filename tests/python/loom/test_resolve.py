"""Names to modules: projects, environments, stubs, namespaces, over trees made for each test."""

import importlib.util
import os
import sys
from dataclasses import replace
from pathlib import Path

import pytest
from loombase.location import CLocalFileLocation, CLocation
from typeshed_client import finder

from loom.resolve import folders, typeshed
from loom.resolve.environment import PythonEnvironment, own_environment
from loom.services.modules import CAnalysisFactory, CPyConfig

STUBS = typeshed.stubs_folder()


class Tree:
    """Files below one folder, an environment among them, and what a factory makes of them."""

    def __init__(self, top):
        self.top = top
        self.stdlib = top / "python/lib/python3.12"
        self.site = self.stdlib / "site-packages"
        self.write("python/lib/python3.12/os.py", "python/lib/python3.12/json/__init__.py")
        self.site.mkdir(parents=True)
        self.environment = PythonEnvironment(
            "python", (3, 12), (str(self.stdlib), str(self.site)), (str(self.stdlib),)
        )
        self.factory = CAnalysisFactory(CPyConfig(self.environment))

    def write(self, *paths, text=""):
        for path in paths:
            path = self.top / path
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)

    def install(self, *paths, text=""):
        self.write(*(self.site / path for path in paths), text=text)

    def location(self, folder):
        return None if folder is None else CLocalFileLocation(self.top / folder)

    def all(self, name, folder=None, follow=False):
        """The locations of a name, as paths below the top, or below the stubs as "stubs:"."""
        found = self.factory.GetAllLocsForName(name, self.location(folder), follow)
        paths = [self.short(loc) for loc in found]
        [primary] = self.factory._FindPrimaryLocsForNames({name}, self.location(folder), follow)
        assert primary is (found[0] if found else None)
        return paths

    def one(self, name, folder=None):
        [path] = self.all(name, folder)
        return path

    def short(self, loc):
        path = Path(loc.path)
        assert path.is_file()
        if path.is_relative_to(STUBS):
            return f"stubs:{path.relative_to(STUBS)}"
        if path.is_relative_to(self.site):
            return f"site:{path.relative_to(self.site)}"
        return str(path.relative_to(self.top))

    def name(self, path):
        return self.factory.GetModuleName(CLocalFileLocation(self.top / path))


@pytest.fixture
def tree(tmp_path):
    tree = Tree(tmp_path)
    yield tree
    tree.factory.destroy()


# --- the standard library


def test_a_standard_module_has_its_stub_and_then_its_source(tree):
    assert tree.all("os") == ["stubs:os/__init__.pyi", "python/lib/python3.12/os.py"]
    assert tree.all("json") == [
        "stubs:json/__init__.pyi",
        "python/lib/python3.12/json/__init__.py",
    ]
    assert tree.all("json.decoder") == ["stubs:json/decoder.pyi"]
    assert tree.all("itertools") == ["stubs:itertools.pyi"]


def test_a_standard_module_without_a_stub_has_its_source(tree):
    tree.write("python/lib/python3.12/idlelib/__init__.py", "python/lib/python3.12/idlelib/run.py")
    assert tree.all("idlelib.run") == ["python/lib/python3.12/idlelib/run.py"]
    tree.write("python/lib/python3.12/json/later.py")
    tree.factory.Recheck()
    assert tree.all("json.later") == ["python/lib/python3.12/json/later.py"]


@pytest.mark.parametrize(
    ("name", "version", "there"),
    [
        ("asyncio.taskgroups", (3, 10), False),
        ("asyncio.taskgroups", (3, 11), True),
        ("distutils.core", (3, 11), True),
        ("distutils.core", (3, 12), False),
        ("tomllib", (3, 10), False),
        ("tomllib", (3, 13), True),
    ],
)
def test_stubs_are_those_of_the_environments_version(tree, name, version, there):
    tree.factory.SetEnvironment(replace(tree.environment, version=version))
    assert bool(tree.all(name)) is there


def test_builtins_and_typing_come_from_the_stubs(tree):
    factory = tree.factory
    builtins = factory.FindBuiltinMod()
    [loc] = factory.GetAllLocsForName(builtins.fLocalName, None, False)
    assert tree.short(loc) == "stubs:builtins.pyi"
    assert [tree.short(loc) for loc in factory.GetTypingLocations()] == [
        "stubs:typing.pyi",
        "stubs:typing_extensions.pyi",
        "stubs:_typeshed/__init__.pyi",
    ]


def test_without_stubs_there_are_no_builtins(tree, monkeypatch):
    monkeypatch.setattr(typeshed, "stubs_folder", lambda: None)
    monkeypatch.setattr(typeshed, "stub_versions", dict)
    factory = CAnalysisFactory(CPyConfig(tree.environment))
    assert factory.FindBuiltinMod() is None
    assert list(factory.GetTypingLocations()) == []
    [loc] = factory.GetAllLocsForName("os", None, False)
    assert tree.short(loc) == "python/lib/python3.12/os.py"


@pytest.mark.parametrize("version", [(3, 9), (3, 12), (3, 14)])
def test_stubs_of_all_standard_modules_are_those_that_another_finder_finds(tree, version):
    tree.factory.SetEnvironment(replace(tree.environment, version=version))
    context = finder.get_search_context(search_path=[], version=version)
    versions = finder.get_typeshed_versions(context.typeshed)
    there = 0
    for name, path in finder.get_all_stub_files(context):
        parts = name.split(".")
        around = [".".join(parts[:count]) for count in range(1, len(parts) + 1)]
        spans = [versions[each] for each in around if each in versions]
        ours = tree.factory.GetAllLocsForName(name, None, False)
        if all(span.min <= version <= (span.max or version) for span in spans):
            assert ours[0].path == str(path)
            assert tree.factory.GetModuleName(ours[0]) == name
            there += 1
        else:
            assert ours == []
    assert there > 500


def test_sources_of_this_interpreter_are_those_that_it_imports(tree):
    tree.factory.SetEnvironment(own_environment())
    checked = 0
    for name in sorted(sys.stdlib_module_names | {"pytest", "_pytest.config", "click.core"}):
        spec = importlib.util.find_spec(name)
        if spec is None or spec.origin is None or not spec.origin.endswith(".py"):
            continue
        *_, source = tree.factory.GetAllLocsForName(name, None, False)
        assert source.path == spec.origin
        assert tree.factory.GetModuleName(source) == name
        checked += 1
    assert checked > 150


# --- installed packages


def test_installed_modules_packages_and_submodules(tree):
    tree.install("mod.py", "pkg/__init__.py", "pkg/a.py", "pkg/sub/__init__.py", "pkg/sub/b.py")
    assert tree.all("mod") == ["site:mod.py"]
    assert tree.all("pkg") == ["site:pkg/__init__.py"]
    assert tree.all("pkg.a") == ["site:pkg/a.py"]
    assert tree.all("pkg.sub.b") == ["site:pkg/sub/b.py"]
    assert tree.all("pkg.nothing") == tree.all("pkg.a.nothing") == tree.all("nothing") == []


def test_a_stub_beside_a_source_comes_first(tree):
    tree.install("pkg/__init__.py", "pkg/__init__.pyi", "pkg/a.py", "pkg/a.pyi", "pkg/b.pyi")
    assert tree.all("pkg") == ["site:pkg/__init__.pyi", "site:pkg/__init__.py"]
    assert tree.all("pkg.a") == ["site:pkg/a.pyi", "site:pkg/a.py"]
    assert tree.all("pkg.b") == ["site:pkg/b.pyi"]


def test_a_stub_package_goes_with_its_package(tree):
    tree.install("pkg/__init__.py", "pkg/a.py", "pkg/a.pyi", "pkg/b.py", "pkg/sub/c.py")
    tree.install("pkg-stubs/__init__.pyi", "pkg-stubs/a.pyi", "pkg-stubs/sub/c.pyi")
    assert tree.all("pkg") == ["site:pkg-stubs/__init__.pyi", "site:pkg/__init__.py"]
    assert tree.all("pkg.a") == ["site:pkg-stubs/a.pyi", "site:pkg/a.py"]
    assert tree.all("pkg.b") == ["site:pkg/b.py"]
    assert tree.all("pkg.sub.c") == ["site:pkg-stubs/sub/c.pyi", "site:pkg/sub/c.py"]
    assert tree.name(tree.site / "pkg-stubs/a.pyi") == "pkg.a"


@pytest.mark.parametrize("partial", [False, True])
def test_only_a_partial_stub_package_leaves_room_for_stubs_beside_sources(tree, partial):
    tree.install("pkg/__init__.py", "pkg/b.py", "pkg/b.pyi", "pkg/sub/__init__.py")
    tree.install("pkg/sub/c.pyi", "pkg-stubs/__init__.pyi")
    if partial:
        tree.install("pkg-stubs/py.typed", text="partial\n")
    assert tree.all("pkg.b") == (["site:pkg/b.pyi"] if partial else []) + ["site:pkg/b.py"]
    assert tree.all("pkg.sub.c") == (["site:pkg/sub/c.pyi"] if partial else [])


def test_stubs_without_a_package(tree):
    tree.install("pkg-stubs/__init__.pyi", "pkg-stubs/a.pyi")
    assert tree.all("pkg.a") == ["site:pkg-stubs/a.pyi"]


def test_extension_modules_have_no_source_unless_one_stands_beside(tree):
    tree.install("pkg/__init__.py", "pkg/fast.cpython-312-x86_64-linux-gnu.so", "single.abi3.so")
    tree.install("pkg/typed.so", "pkg/typed.pyi", "pkg/compiled.so", "pkg/compiled.py")
    assert tree.all("pkg.fast") == tree.all("single") == []
    assert tree.all("pkg.typed") == ["site:pkg/typed.pyi"]
    assert tree.all("pkg.compiled") == ["site:pkg/compiled.py"]


def test_an_extension_module_hides_what_comes_behind_it(tree):
    other = tree.top / "other"
    tree.write(other / "hidden.py")
    tree.install("hidden.so")
    path = (*tree.environment.path, str(other))
    tree.factory.SetEnvironment(replace(tree.environment, path=path))
    assert tree.all("hidden") == []


def test_a_namespace_package_has_modules_in_several_folders(tree):
    other = tree.top / "other"
    tree.install("ns/a.py", "ns/deep/x.py")
    tree.write(other / "ns/b.py", other / "ns/deep/y.py", other / "ns/sub/__init__.py")
    path = (*tree.environment.path, str(other))
    tree.factory.SetEnvironment(replace(tree.environment, path=path))
    assert tree.all("ns") == []
    assert tree.all("ns.a") == ["site:ns/a.py"]
    assert tree.all("ns.b") == ["other/ns/b.py"]
    assert tree.all("ns.deep.x") == ["site:ns/deep/x.py"]
    assert tree.all("ns.deep.y") == ["other/ns/deep/y.py"]
    assert tree.all("ns.sub") == ["other/ns/sub/__init__.py"]
    assert tree.all(".b", tree.site / "ns") == ["other/ns/b.py"]
    assert tree.all("..b", tree.site / "ns/deep") == ["other/ns/b.py"]
    assert tree.name(other / "ns/deep/y.py") == "ns.deep.y"


def test_a_package_behind_it_wins_over_a_namespace_folder(tree):
    tree.write("proj/pyproject.toml", "proj/pkg/data.txt", "proj/json/data.json", "proj/main.py")
    tree.install("pkg/__init__.py")
    assert tree.all("pkg", "proj") == ["site:pkg/__init__.py"]
    assert tree.one("json.decoder", "proj") == "stubs:json/decoder.pyi"


def test_packages_that_are_installed_by_name(tree):
    tree.write("code/real/__init__.py", "code/real/inner.py", "code/single.py", "code/part/z.py")
    mapped = {
        "pkg": str(tree.top / "code/real"),
        "single": str(tree.top / "code/single"),
        "ns.part": str(tree.top / "code/part"),
    }
    tree.factory.SetEnvironment(replace(tree.environment, mapped=mapped))
    assert tree.all("pkg") == ["code/real/__init__.py"]
    assert tree.all("pkg.inner") == ["code/real/inner.py"]
    assert tree.all("single") == ["code/single.py"]
    assert tree.all("ns.part.z") == ["code/part/z.py"]
    tree.install("pkg/__init__.py")
    tree.factory.Recheck()
    assert tree.all("pkg") == ["site:pkg/__init__.py"]


# --- projects


@pytest.mark.parametrize("marker", ["pyproject.toml", "setup.py", "setup.cfg", ".git/HEAD"])
def test_names_are_seen_from_the_top_of_the_project(tree, marker):
    tree.write(f"proj/{marker}", "proj/mod.py", "proj/pkg/__init__.py", "proj/pkg/a.py")
    tree.write("proj/tests/unit/test_a.py")
    for folder in ("proj", "proj/pkg", "proj/tests/unit"):
        assert tree.all("pkg.a", folder) == ["proj/pkg/a.py"]
        assert tree.all("mod", folder) == ["proj/mod.py"]
    assert tree.all("pkg.a", "elsewhere") == tree.all("pkg.a") == []


def test_the_src_layout(tree):
    tree.write("proj/pyproject.toml", "proj/src/pkg/__init__.py", "proj/src/pkg/a.py")
    tree.write("proj/tests/test_a.py", "proj/pkg/wrong.py")
    assert tree.all("pkg.a", "proj/tests") == ["proj/src/pkg/a.py"]
    assert tree.name("proj/src/pkg/a.py") == "pkg.a"


def test_a_package_called_src_is_no_layout(tree):
    tree.write("proj/pyproject.toml", "proj/src/__init__.py", "proj/src/a.py", "proj/b.py")
    assert tree.all("src.a", "proj") == ["proj/src/a.py"]
    assert tree.all("a", "proj") == []


def test_projects_that_are_scanned_together_see_each_other(tree):
    tree.write("one/pyproject.toml", "one/common.py", "one/a.py")
    tree.write("two/pyproject.toml", "two/src/common.py", "two/src/b.py")
    assert tree.all("b", "one") == []
    tree.factory.SetScannedFolders([str(tree.top / "one"), str(tree.top / "two")])
    assert tree.all("b", "one") == ["two/src/b.py"]
    assert tree.all("a", "two/src") == ["one/a.py"]
    assert tree.all("common", "one") == ["one/common.py"]
    assert tree.all("common", "two/src") == ["two/src/common.py"]


def test_a_scanned_folder_without_a_project_is_one(tree):
    tree.write("loose/pkg/a.py", "loose/deep/er/script.py")
    tree.factory.SetScannedFolders([str(tree.top / "loose")])
    assert tree.all("pkg.a", "loose/deep/er") == ["loose/pkg/a.py"]


def test_a_package_sees_itself_wherever_it_stands(tree):
    tree.write("proj/pyproject.toml", "proj/vendor/pkg/__init__.py", "proj/vendor/pkg/sub/a.py")
    tree.write("proj/vendor/pkg/sub/__init__.py", "proj/vendor/beside.py")
    assert tree.all("pkg.sub.a", "proj/vendor/pkg/sub") == ["proj/vendor/pkg/sub/a.py"]
    assert tree.all("beside", "proj/vendor/pkg") == ["proj/vendor/beside.py"]
    assert tree.all("pkg.sub.a", "proj") == []


def test_a_script_sees_what_stands_beside_it(tree):
    tree.write("proj/pyproject.toml", "proj/tools/run.py", "proj/tools/helper.py")
    tree.write("proj/tools/kit/__init__.py", "proj/tools/json.py", "proj/helper.py")
    assert tree.all("helper", "proj/tools") == ["proj/tools/helper.py"]
    assert tree.all("kit", "proj/tools") == ["proj/tools/kit/__init__.py"]
    assert tree.all("kit", "proj") == []


def test_a_namesake_beside_a_file_does_not_hide_the_standard_library(tree):
    """The folder may as well be a namespace package, where it never would."""
    tree.write("proj/pyproject.toml", "proj/tools/json.py", "proj/tools/run.py")
    assert tree.all("json", "proj/tools")[0] == "stubs:json/__init__.pyi"


def test_a_module_of_the_project_comes_before_all_else(tree):
    tree.write("proj/pyproject.toml", "proj/json.py", "proj/click/__init__.py")
    tree.install("click/__init__.py", "click-stubs/__init__.pyi")
    assert tree.all("json", "proj") == ["proj/json.py"]
    assert tree.all("click", "proj") == ["site:click-stubs/__init__.pyi", "proj/click/__init__.py"]


def test_a_backport_does_not_hide_the_standard_module(tree):
    tree.install("json/__init__.py", "typing.py", "typing_extensions.py", "pkg/__init__.py")
    for folder in (None, tree.site, tree.site / "pkg"):
        assert tree.all("json", folder) == [
            "stubs:json/__init__.pyi",
            "python/lib/python3.12/json/__init__.py",
        ]
    assert tree.all("typing_extensions") == [
        "stubs:typing_extensions.pyi",
        "site:typing_extensions.py",
    ]


def test_installed_packages_do_not_see_the_project_around_their_environment(tree):
    site = "proj/.venv/lib/python3.12/site-packages"
    tree.write("proj/pyproject.toml", "proj/utils.py", f"{site}/pkg/__init__.py", f"{site}/dep.py")
    assert tree.all("utils", f"{site}/pkg") == []
    assert tree.all("dep", f"{site}/pkg") == [f"{site}/dep.py"]
    assert tree.name(f"{site}/dep.py") == "dep"


# --- relative names


def test_relative_names(tree):
    tree.write("proj/pyproject.toml", "proj/pkg/__init__.py", "proj/pkg/a.py")
    tree.write("proj/pkg/sub/__init__.py", "proj/pkg/sub/b.py", "proj/pkg/sub/deep/__init__.py")
    assert tree.all(".", "proj/pkg") == ["proj/pkg/__init__.py"]
    assert tree.all(".a", "proj/pkg") == ["proj/pkg/a.py"]
    assert tree.all(".sub.b", "proj/pkg") == ["proj/pkg/sub/b.py"]
    assert tree.all("..", "proj/pkg/sub") == ["proj/pkg/__init__.py"]
    assert tree.all("..a", "proj/pkg/sub") == ["proj/pkg/a.py"]
    assert tree.all("...a", "proj/pkg/sub/deep") == ["proj/pkg/a.py"]
    assert tree.all(".nothing", "proj/pkg") == tree.all("..nothing", "proj/pkg/sub") == []
    assert tree.all("." * 50 + "x", "proj/pkg") == []


def test_relative_names_where_there_is_no_package(tree):
    tree.write("proj/tools/run.py", "proj/tools/helper.py", "proj/other.py")
    assert tree.all(".helper", "proj/tools") == ["proj/tools/helper.py"]
    assert tree.all("..other", "proj/tools") == ["proj/other.py"]
    assert tree.all(".", "proj/tools") == []


def test_relative_names_in_stubs_have_sources_too(tree):
    tree.install("pkg/__init__.py", "pkg/a.py", "pkg/b.py", "pkg-stubs/a.pyi")
    assert tree.all(".a", tree.site / "pkg-stubs") == ["site:pkg-stubs/a.pyi", "site:pkg/a.py"]
    assert tree.all(".b", tree.site / "pkg-stubs") == ["site:pkg/b.py"]
    assert tree.all(".decoder", f"{STUBS}/json") == ["stubs:json/decoder.pyi"]
    assert tree.all("..", f"{STUBS}/email/mime")[0] == "stubs:email/__init__.pyi"


# --- names of all sorts


@pytest.mark.parametrize(
    "name", ["", "a..b", "pkg.", "pkg..", "a/b", "../x", "a\0b", " ", "\udcff", "x" * 5000, "*"]
)
def test_what_is_no_name_finds_nothing(tree, name):
    tree.write("proj/pyproject.toml", "proj/pkg/__init__.py", "proj/x.py")
    for folder in (None, "proj"):
        assert tree.all(name, folder) == []
        assert tree.all(f".{name}", folder) in ([], ["proj/pkg/__init__.py"])


def test_names_that_are_not_ascii(tree):
    tree.write("proj/pyproject.toml", "proj/größe.py")
    assert tree.all("größe", "proj") == ["proj/größe.py"]
    assert tree.name("proj/größe.py") == "größe"


def test_an_attribute_is_no_module_unless_it_is_followed(tree):
    tree.install("pkg/__init__.py", "pkg/a.py")
    assert tree.all("pkg.a.f.g") == []
    assert tree.all("pkg.a.f.g", follow=True) == ["site:pkg/a.py"]
    assert tree.all("nothing.at.all", follow=True) == []
    assert tree.all(".a.f", tree.site / "pkg", follow=True) == ["site:pkg/a.py"]


def test_each_name_has_its_answer_in_order(tree):
    tree.install("a.py", "b.py")
    names = ["b", "nothing", "a"]
    found = tree.factory._FindPrimaryLocsForNames(names, tree.location(tree.site), False)
    assert [loc and tree.short(loc) for loc in found] == ["site:b.py", None, "site:a.py"]


def test_from_a_folder_that_is_not_local_the_standard_library_is_seen(tree):
    class Remote(CLocation):
        pass

    tree.install("mod.py")
    found = tree.factory._FindPrimaryLocsForNames(["mod", ".mod", "os"], Remote(), False)
    assert [loc and tree.short(loc) for loc in found] == [None, None, "stubs:os/__init__.pyi"]
    assert tree.factory.GetModuleName(Remote()) is None


def test_links_to_nowhere_and_folders_named_like_files(tree):
    tree.install("real.py")
    (tree.site / "dangling.py").symlink_to("missing.py")
    (tree.site / "linked.py").symlink_to("real.py")
    (tree.site / "folder.py").mkdir()
    (tree.site / "loop").symlink_to(".")
    assert tree.all("dangling") == tree.all("folder") == []
    assert tree.all("linked") == ["site:linked.py"]
    assert tree.all("loop.loop.real") == ["site:loop/loop/real.py"]


# --- from a file to its name


def test_names_of_files(tree):
    tree.write("proj/pyproject.toml", "proj/pkg/__init__.py", "proj/pkg/a.pyi", "proj/run-me.py")
    tree.write("proj/tools/script.py", "proj/pkg/data.txt", "loose/single.py")
    assert tree.name("proj/pkg/__init__.py") == "pkg"
    assert tree.name("proj/pkg/a.pyi") == "pkg.a"
    assert tree.name("proj/tools/script.py") == "tools.script"
    assert tree.name("loose/single.py") == "single"
    assert tree.name("proj/run-me.py") is None
    assert tree.name("proj/pkg/data.txt") is None
    assert tree.name("proj/pkg/missing.py") is None
    assert tree.name(tree.stdlib / "json/__init__.py") == "json"


def test_a_file_that_another_one_hides_has_no_name(tree):
    tree.write("proj/pyproject.toml", "proj/pkg.py", "proj/pkg/__init__.py")
    assert tree.all("pkg", "proj") == ["proj/pkg/__init__.py"]
    assert tree.name("proj/pkg.py") is None


# --- files that are scanned along


def test_the_source_goes_along_with_its_stub(tree):
    tree.install("pkg/__init__.py", "pkg/a.py", "pkg/a.pyi", "pkg/b.py", "pkg-stubs/b.pyi")
    tree.install("pkg/only.pyi")

    def along(path):
        found = tree.factory.GetSecondaryLocations(CLocalFileLocation(path))
        return found and [tree.short(loc) for loc in found]

    assert along(tree.site / "pkg/a.pyi") == ["site:pkg/a.py"]
    assert along(tree.site / "pkg-stubs/b.pyi") == ["site:pkg/b.py"]
    assert along(tree.site / "pkg/only.pyi") is None
    assert along(tree.site / "pkg/a.py") is None
    assert along(typeshed.builtins_path()) is None


# --- what is remembered


def test_a_new_file_is_seen_when_its_folder_is_told(tree):
    tree.write("proj/pyproject.toml", "proj/pkg/__init__.py")
    assert tree.all("pkg.new", "proj") == []
    tree.write("proj/pkg/new.py")
    assert tree.all("pkg.new", "proj") == []
    tree.factory.ForgetBelow(tree.location("proj/pkg"))
    assert tree.all("pkg.new", "proj") == ["proj/pkg/new.py"]
    (tree.top / "proj/pkg/new.py").unlink()
    tree.factory.ForgetBelow(tree.location("proj/pkg"))
    assert tree.all("pkg.new", "proj") == []


def test_a_new_package_is_seen_when_it_or_the_folder_above_is_told(tree):
    tree.write("proj/pyproject.toml")
    assert tree.all("pkg.a", "proj") == []
    tree.write("proj/pkg/__init__.py", "proj/pkg/a.py")
    tree.factory.ForgetBelow(tree.location("proj/pkg"))
    assert tree.all("pkg.a", "proj") == ["proj/pkg/a.py"]


def test_folders_are_looked_at_again_and_read_only_if_they_changed(tree, monkeypatch):
    tree.install("pkg/__init__.py", "pkg/a.py", "other/__init__.py")
    for folder in (tree.site, tree.site / "pkg", tree.site / "other", tree.stdlib):
        os.utime(folder, (1_000_000, 1_000_000))
    for name in ("pkg.a", "other", "pkg.new"):
        tree.all(name)
    read, scandir = [], os.scandir
    monkeypatch.setattr(os, "scandir", lambda path: read.append(path) or scandir(path))
    tree.all("pkg.a")
    tree.factory.Recheck()
    for name in ("pkg.a", "other"):
        tree.all(name)
    assert read == []
    tree.install("pkg/new.py")
    tree.factory.Recheck()
    assert tree.all("pkg.new") == ["site:pkg/new.py"]
    assert tree.all("other") == ["site:other/__init__.py"]
    assert read == [str(tree.site / "pkg")]


def test_a_time_that_is_young_is_not_trusted(tree):
    """Two changes within one tick of the file system's clock leave the same time."""
    tree.install("pkg/__init__.py")
    assert tree.all("pkg.a") == []
    before = os.stat(tree.site / "pkg").st_mtime_ns
    tree.install("pkg/a.py")
    os.utime(tree.site / "pkg", ns=(before, before))
    tree.factory.Recheck()
    assert tree.all("pkg.a") == ["site:pkg/a.py"]


def test_a_known_answer_asks_the_file_system_for_nothing(tree, monkeypatch):
    tree.write("proj/pyproject.toml", "proj/pkg/__init__.py", "proj/pkg/a.py")
    names, folder = {"os", "pkg.a", ".a", "nothing"}, tree.location("proj/pkg")
    first = tree.factory._FindPrimaryLocsForNames(names, folder, False)
    for function in ("stat", "lstat", "scandir", "listdir"):
        monkeypatch.setattr(os, function, lambda *args: pytest.fail("asked the file system"))
    assert tree.factory._FindPrimaryLocsForNames(names, folder, False) == first


def test_a_folder_that_is_too_big_is_not_read_to_its_end(tree, monkeypatch):
    monkeypatch.setattr(folders, "_MOST_ENTRIES", 5)
    tree.install(*(f"m{i}.py" for i in range(20)), "pkg/__init__.py", "fast.abi3.so", "t.pyi")
    assert tree.all("m17") == ["site:m17.py"]
    assert tree.all("pkg") == ["site:pkg/__init__.py"]
    assert tree.all("t") == ["site:t.pyi"]
    assert tree.all("fast") == tree.all("m99") == []


def test_folders_that_are_not_there_or_are_files(tree):
    path = (*tree.environment.path, str(tree.top / "missing"), str(tree.stdlib / "os.py"))
    tree.factory.SetEnvironment(replace(tree.environment, path=path))
    assert tree.all("nothing") == []


def test_another_environment_is_told_and_answers_anew(tree):
    told = []
    tree.factory.connect("import-resolution-changed", told.append)
    tree.write("other/lib/new.py")
    assert tree.all("new") == []
    environment = replace(tree.environment, path=(str(tree.top / "other/lib"),), stdlib=())
    tree.factory.SetEnvironment(environment)
    assert tree.all("new") == ["other/lib/new.py"]
    assert told == [tree.factory]
    config = CPyConfig(environment)
    assert [loc.path for loc in config.python_path_locs] == [str(tree.top / "other/lib")]
