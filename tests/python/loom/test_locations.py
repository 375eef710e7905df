"""Locations of files: identity, URLs, odd names."""

import copy
import gc
import os
import pickle
import weakref

import pytest
from hypothesis import given
from hypothesis import strategies as st
from loombase import location
from loombase.location import CLocalFileLocation, CLocation, LocationFromUrl


def test_one_place_is_one_object():
    loc = CLocalFileLocation("/some/where/file.py")
    assert CLocalFileLocation("/some/where/file.py") is loc
    assert CLocalFileLocation(b"/some/where/file.py") is loc
    assert CLocalFileLocation("/some//where/./other/../file.py") is loc
    assert CLocalFileLocation("//some/where/file.py") is loc
    assert CLocalFileLocation("/some/where/file.pyi") is not loc


def test_a_relative_path_is_made_absolute(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    loc = CLocalFileLocation("a/../b.py")
    assert loc.path == str(tmp_path / "b.py")
    assert CLocalFileLocation(tmp_path / "b.py") is loc
    assert os.fspath(loc) == loc.path


def test_links_are_not_followed(tmp_path):
    target = tmp_path / "target"
    target.mkdir()
    (tmp_path / "link").symlink_to(target)
    through_link = CLocalFileLocation(tmp_path / "link" / "x.py")
    assert through_link is not CLocalFileLocation(target / "x.py")
    assert CLocalFileLocation(tmp_path / "link" / ".." / "x.py").path == str(tmp_path / "x.py")


def test_a_loop_of_links_is_a_name_like_others(tmp_path):
    (tmp_path / "loop").symlink_to(tmp_path / "loop")
    loc = CLocalFileLocation(tmp_path / "loop" / "loop" / "x.py")
    assert loc.GetParentDir().path == str(tmp_path / "loop" / "loop")


def test_a_location_that_nobody_holds_is_forgotten():
    gc.collect()  # what other tests left
    before = len(location._interned)
    loc = CLocalFileLocation("/forgotten/x.py")
    gone = weakref.ref(loc)
    assert len(location._interned) == before + 1
    del loc
    gc.collect()
    assert gone() is None
    assert len(location._interned) == before


def test_copies_are_the_same_object():
    loc = CLocalFileLocation("/a/b.py")
    assert copy.copy(loc) is loc
    assert copy.deepcopy({loc: [loc]}) == {loc: [loc]}
    assert pickle.loads(pickle.dumps(loc)) is loc


def test_a_derived_class_has_locations_of_its_own():
    class Special(CLocalFileLocation):
        __slots__ = ()

    special = Special("/a/b.py")
    assert special is Special("/a/b.py")
    assert special is not CLocalFileLocation("/a/b.py")
    assert isinstance(special.GetParentDir(), Special)


@pytest.mark.parametrize("path", ["", "a\0b", b"", b"\0"])
def test_what_is_no_path_is_refused(path):
    with pytest.raises(ValueError, match="not a path"):
        CLocalFileLocation(path)


def test_a_location_is_no_number():
    with pytest.raises(TypeError):
        CLocalFileLocation(3)


@pytest.mark.parametrize(
    ("path", "url"),
    [
        ("/a/b.py", "file:///a/b.py"),
        ("/a b/ü#?%.py", "file:///a%20b/%C3%BC%23%3F%25.py"),
        ("/line\nend.py", "file:///line%0Aend.py"),
        (b"/latin-\xe9.py", "file:///latin-%E9.py"),
        ("/", "file:///"),
    ],
)
def test_urls_are_percent_encoded_and_lead_back(path, url):
    loc = CLocalFileLocation(path)
    assert loc.fUrl == url
    assert LocationFromUrl(url) is loc


def test_the_ends_that_the_scheduler_looks_for_stay_as_they_are():
    for end in (".py", ".pi", ".pyi"):
        assert CLocalFileLocation(f"/ünter/%2e{end}").fUrl.endswith(end)


def test_a_name_that_is_not_utf8_reaches_the_file(tmp_path):
    name = os.fsencode(tmp_path) + b"/\xff\xfe.py"
    with open(name, "wb") as file:
        file.write(b"x")
    loc = CLocalFileLocation(name)
    assert os.path.getsize(loc.path) == 1
    assert repr(loc).isprintable()


@given(st.binary(min_size=1).filter(lambda name: b"\0" not in name))
def test_every_name_survives_the_way_through_its_url(name):
    loc = CLocalFileLocation(b"/top/" + name)
    assert LocationFromUrl(loc.fUrl) is loc
    assert loc.fUrl.isascii()


@pytest.mark.parametrize("url", ["http:///a.py", "file://elsewhere/a.py", "file:", "/a.py", ""])
def test_other_urls_are_no_local_files(url):
    with pytest.raises(ValueError, match="not the URL of a local file"):
        LocationFromUrl(url)


def test_parents_up_to_the_top():
    loc = CLocalFileLocation("/a/b/c.py")
    folder = loc.GetParentDir()
    assert folder is CLocalFileLocation("/a/b")
    top = folder.GetParentDir().GetParentDir()
    assert top.path == "/"
    assert top.GetParentDir() is top


def test_local_locations_are_ready_without_inspection():
    loc = CLocalFileLocation("/a.py")
    assert loc.IsReady()
    assert not location.IsAsyncInspectLocation(loc)


def test_waiting_for_local_locations_is_over_at_once():
    calls = []
    location._WaitForInspectMultiple([CLocalFileLocation("/a.py")], calls.append, True)
    location._WaitForInspectMultiple([], calls.append, False)
    assert calls == [False, False]


def test_waiting_for_a_location_that_never_gets_ready_is_given_up():
    class Remote(CLocation):
        __slots__ = ()
        fAsyncInspect = True

        def IsReady(self):
            return False

    calls = []
    location._WaitForInspectMultiple([Remote()], calls.append, False)
    assert calls == [True]
    assert location.IsAsyncInspectLocation(Remote())
