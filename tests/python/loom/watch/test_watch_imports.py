"""What names mean follows the files that come and go."""

from loom.watch.events import Change


def test_modules_that_come_and_go_are_known_as_such(world):
    world.write("a.py")
    world.watch()
    factory = world.app.ana_mgr.fAnalysisFactory
    folder = world.loc("a.py").GetParentDir()

    def files(name):
        return [loc.path for loc in factory.GetAllLocsForName(name, folder, False)]

    assert files("later") == files("pkg.inner") == []
    world.write("later.py", "pkg/__init__.py", "pkg/inner.py")
    assert files("later") == []  # nobody has told yet
    world.happen((Change.WRITTEN, "later.py"), (Change.APPEARED, "pkg/"))
    world.settle()
    assert files("later") == [world.loc("later.py").path]
    assert files("pkg.inner") == [world.loc("pkg/inner.py").path]
    (world.top / "later.py").unlink()
    world.happen((Change.GONE, "later.py"))
    world.settle()
    assert files("later") == []
