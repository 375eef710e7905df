"""The end of the interpreter, loading twice, and other ways of running."""

import sys

import pytest
import support
import test_isolated_bases as bases
import test_isolated_collection as collection
import test_isolated_hostile as hostile
from test_isolated_bases import kWholeLife


@pytest.mark.parametrize("destroyed", [True, False])
def test_exit_with_live_objects_is_clean(over, destroyed):
    over(
        f"""
from pysource import scopescanner
from pysource.scancoordinator import CScanCoordinator

class CMine(CScanCoordinator):
    pass

world = new_world()
coordinator = world.make(CMine)
coordinator.me = coordinator
world.ana_mgr.coordinator = coordinator
scopescanner.script.append(scopescanner.kTimedOut)
for loc in world.locs(10):
    loc.back = coordinator
    world.queue(coordinator, loc, check=True)
coordinator._ScheduleIdle()
coordinator._CB_DoIdleAnalysis()
coordinator._ScheduleWriteToDatabaseIdle()
operations = [coordinator._CB_DoIdleAnalysis, coordinator._CScanCoordinator__DoScans]
if {destroyed}:
    coordinator.destroy()
"""
    )


def test_exit_with_finalizers_that_still_use_the_coordinator(over):
    over(
        """
import atexit
from pysource.scancoordinator import CScanCoordinator

class CMine(CScanCoordinator):
    def __del__(self):
        try:
            self.GetStatus()
            self.FlushQueue()
            self.destroy()
        except Exception:
            pass

world = new_world()
coordinator = world.make(CMine)
world.queue(coordinator, world.loc("/p/a.py"))
sys.coordinator = coordinator
atexit.register(coordinator.GetStatus)
atexit.register(coordinator.FlushQueue)
"""
    )


def test_exit_from_inside_a_scan(over):
    """`sys.exit` in a scanner is a failure like any other: it reaches the host."""
    over(
        """
from pysource import scopescanner

def step(scanner, end_time):
    sys.exit(3)

world = new_world()
coordinator = world.make()
world.queue(coordinator, world.loc("/p/a.py"))
scopescanner.script.append(step)
error = raises(SystemExit, lambda: coordinator._CScanCoordinator__DoScans(2e6))
check(error.code == 3)
"""
    )


def test_interrupt_inside_a_scan(over):
    over(
        """
import signal
from pysource import scopescanner

def step(scanner, end_time):
    signal.raise_signal(signal.SIGINT)
    return scopescanner.kFinishedScanning

world = new_world()
coordinator = world.make()
world.queue(coordinator, world.loc("/p/a.py"))
scopescanner.script.append(step)
raises(KeyboardInterrupt, lambda: coordinator._CScanCoordinator__DoScans(2e6))
check(coordinator.fActiveScanItem is None)
coordinator.destroy()
"""
    )


def test_loading_the_module_twice_is_refused(over):
    """Its classes derive from the host's CDestroyable of the moment when it was loaded."""
    over(
        """
import importlib
import pysource
from pysource import scancoordinator

world = new_world()
coordinator = world.make()
first = sys.modules.pop("pysource.scancoordinator")
raises(ImportError, lambda: importlib.import_module("pysource.scancoordinator"))
check("pysource.scancoordinator" not in sys.modules)
sys.modules["pysource.scancoordinator"] = first
world.queue(coordinator, world.loc("/p/a.py"))
check(first.CScanCoordinator(1, world.ana_mgr).QueuesEmpty())
check(not coordinator.QueuesEmpty())
importlib.reload(first)
check(first.CScanCoordinator is type(coordinator))
coordinator.destroy()
"""
    )


@pytest.mark.parametrize("python", [sys.executable, *support.later_pythons()])
def test_another_interpreter_in_the_process_is_refused_or_served(python):
    """Whatever comes of it, the process goes on."""
    support.run(
        f"""
try:
    import _interpreters as interpreters  # from 3.13 on
    makers = [lambda: interpreters.create("isolated"), lambda: interpreters.create("legacy")]
except ImportError:
    import _xxsubinterpreters as interpreters
    makers = [lambda: interpreters.create(isolated=True), lambda: interpreters.create(isolated=False)]

world = new_world()
coordinator = world.make()
path = {[*support.script_path(), str(support.package_folder())]!r}
script = f'''
import sys
sys.path[:0] = {{path!r}}
try:
    import pysource.scancoordinator
except ImportError:
    pass
'''
for make in makers:
    interpreter = make()
    error = interpreters.run_string(interpreter, script)
    check(error is None, error)
    interpreters.destroy(interpreter)
world.queue(coordinator, world.loc("/p/a.py"))
check(not coordinator.QueuesEmpty())
coordinator.destroy()
""",
        python=python,
    )


# A host whose CDestroyable is no fit base.


@pytest.mark.parametrize(
    ("base", "error"),
    [
        ("None", "TypeError"),
        ("5", "TypeError"),
        ("len", "TypeError"),
        ("bool", "TypeError"),
        ("type(None)", "TypeError"),
    ],
)
def test_a_base_that_is_no_class_to_derive_from_is_refused(base, error):
    support.run(
        f"""
import loombase.destroyable
loombase.destroyable.CDestroyable = {base}
raises({error}, lambda: __import__("pysource.scancoordinator"))
check("pysource.scancoordinator" not in sys.modules)
"""
    )


def test_a_host_without_the_base_is_refused():
    support.run(
        """
import loombase.destroyable
del loombase.destroyable.CDestroyable
raises((ImportError, AttributeError), lambda: __import__("pysource.scancoordinator"))
check("pysource.scancoordinator" not in sys.modules)
"""
    )


def test_no_host_at_all_is_refused():
    support.run(
        """
sys.path[:] = [p for p in sys.path if not p.endswith("fakehost")]
error = raises(ImportError, lambda: __import__("pysource.scancoordinator"))
check("loombase" in str(error), error)
""",
        base=None,
    )


def test_a_host_that_comes_late_is_taken():
    """A load that failed for want of a host does not count as the one load."""
    support.run(
        """
host = [p for p in sys.path if p.endswith("fakehost")]
sys.path[:] = [p for p in sys.path if p not in host]
raises(ImportError, lambda: __import__("pysource.scancoordinator"))
sys.path[:0] = host
import importlib
importlib.invalidate_caches()
for name in [name for name in sys.modules if name.startswith("pysource")]:
    del sys.modules[name]
import pysource.scancoordinator
new_world().make().destroy()
""",
        base=None,
    )


def test_a_base_with_a_metaclass():
    support.run(
        """
import loombase.destroyable

class Meta(type):
    made = []

    def __init__(cls, *args):
        Meta.made.append(cls)

class CDestroyable(loombase.destroyable.CDestroyable, metaclass=Meta):
    pass

loombase.destroyable.CDestroyable = CDestroyable
from pysource.scancoordinator import CScanCoordinator
check(type(CScanCoordinator) is Meta)
world = new_world()
coordinator = world.make(type(CScanCoordinator)("CMine", (CScanCoordinator,), {}))
world.queue(coordinator, world.loc("/p/a.py"))
coordinator.destroy()
"""
    )


# Other ways of running.


@pytest.mark.parametrize(
    ("flags", "env"),
    [
        (("-X", "dev"), {}),
        (("-X", "dev", "-W", "error"), {}),
        ((), {"PYTHONMALLOC": "debug"}),
        ((), {"PYTHONMALLOC": "malloc_debug"}),
        (("-I",), {}),
        (("-X", "importtime"), {}),
        (("-OO",), {}),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else " ".join(value.values()),
)
def test_whole_life_under(compiled_bases, flags, env):
    for base in ("dict", "slots", "heap", "static"):
        result = support.start(
            kWholeLife,
            base=base,
            base_folder=compiled_bases.get(base),
            flags=flags,
            env=env,
        )
        assert result.returncode == 0, result.stderr
        assert result.stdout.splitlines()[-1:] == [support.kLastLine]
        if "importtime" not in flags:
            assert result.stderr == ""


@pytest.mark.parametrize("base", ["dict", "slots", "heap", "static"])
@pytest.mark.parametrize("python", support.later_pythons(), ids=lambda path: path.split("/")[-1])
def test_whole_life_in_another_python(tmp_path, python, base):
    """The stable ABI modules as they are, and compiled bases built for that interpreter."""
    folder = None
    if base in ("heap", "static"):
        folder = support.build_base(tmp_path, base, python)
    support.run(kWholeLife, base=base, base_folder=folder, python=python)


@pytest.mark.parametrize("python", support.later_pythons(), ids=lambda path: path.split("/")[-1])
@pytest.mark.parametrize(
    "test",
    [
        bases.test_fields_are_read_only,
        bases.test_a_subclass_that_skips_the_constructor,
        bases.test_a_subclass_with_a_finalizer_of_its_own,
        bases.test_a_subclass_with_slots,
        collection.test_each_place_that_holds_an_object_lets_it_go,
        collection.test_weak_references_and_their_callbacks,
        collection.test_finalizers_in_a_cycle_can_use_the_coordinator,
        hostile.test_junk_arguments,
        hostile.test_collaborators_that_answer_nonsense,
    ],
    ids=lambda test: test.__name__.removeprefix("test_"),
)
def test_life_and_death_in_another_python(tmp_path, test, python):
    """The same again where the interpreter's own types are laid out differently."""
    for base in ("dict", "slots", "heap"):
        folder = support.build_base(tmp_path, base, python) if base == "heap" else None
        options = {"python": python, "base": base, "base_folder": folder}
        test(lambda script, options=options, **more: support.run(script, **options, **more))
