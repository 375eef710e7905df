"""What any host supplies: signals, locations, a main loop, and the modules that hold them."""

import asyncio
import os
import sys
import traceback
from pathlib import Path
from types import ModuleType


class CDestroyable:
    """Base class of the scheduler's classes: an explicit end, and signals."""

    class_wide = []  # (class, signal, callback)

    def __init__(self, names=()):
        self.connections = {name: {} for name in names}
        self.destroyed = False

    def destroy(self):
        if not self.destroyed:
            self.destroyed = True
            self._destroy_impl()

    def _destroy_impl(self):
        pass

    def emit(self, name, *args):
        for callback, owner in list(self.connections[name].values()):
            if owner is None or not owner.destroyed:
                callback(*args)
        for cls, signal, callback in list(self.class_wide):
            if signal == name and isinstance(self, cls):
                callback(*args)

    def connect(self, name, callback, owner=None):
        connection = object()
        self.connections[name][connection] = callback, owner
        return connection

    connect_while_alive = connect

    @classmethod
    def class_connect_while_alive(cls, name, callback, owner):
        CDestroyable.class_wide.append((cls, name, callback))

    def disconnect(self, connection):
        for connections in self.connections.values():
            connections.pop(connection, None)


def emitter(*names):
    """A class whose instances emit these signals and do nothing else."""
    return type("Emitter", (CDestroyable,), {
        "__init__": lambda self: CDestroyable.__init__(self, names)
    })


class Location:
    """A file. The scheduler keys everything by it, so there is one object for each path."""

    made = {}

    def __new__(cls, path):
        if path not in cls.made:
            self = cls.made[path] = super().__new__(cls)
            self.path, self.fUrl = path, Path(path).as_uri()
        return cls.made[path]

    def GetParentDir(self):
        return Location(os.path.dirname(self.path))


class MainLoop:
    """Idle callbacks, of which one runs whenever asyncio has been round, and timers."""

    def __init__(self):
        self.asyncio_loop = asyncio.new_event_loop()
        self.idle = {}

    def idle_add(self, callback, priority=200):
        handle = object()
        self.idle[handle] = priority, callback
        if len(self.idle) == 1:
            self.asyncio_loop.call_soon(self.run_one)
        return handle

    def run_one(self):
        if self.idle:
            handle = min(self.idle, key=lambda h: self.idle[h][0])
            if not self.idle[handle][1]():
                self.idle.pop(handle, None)
        if self.idle:
            self.asyncio_loop.call_later(0.001, self.run_one)  # whoever is ready goes first

    def timeout_add(self, milliseconds, callback, owner):
        def tick():
            if not owner.destroyed and callback():
                self.asyncio_loop.call_later(milliseconds / 1000, tick)

        return self.asyncio_loop.call_later(milliseconds / 1000, tick)


def supply(loop, manager_table, own_modules):
    """Give the scheduler all that it imports, under the names that it knows."""
    for name, members in {
        "loombase.destroyable": {"CDestroyable": CDestroyable},
        "loombase.location": {
            "CLocalFileLocation": Location, "IsAsyncInspectLocation": lambda loc: False
        },
        "loombase.remoteclient": {"CRemoteServerManager": emitter("server-stopped")},
        "loombase.containers": {"CContainerInspectorManager": emitter("server-stopped")},
        "guiutils.lgtk": {
            "idle_add": loop.idle_add,
            "idle_add_while_alive": lambda callback, owner: loop.idle_add(callback),
            "idle_remove": lambda handle: loop.idle.pop(handle, None),
            "timeout_add_while_alive": loop.timeout_add,
            "timeout_remove": lambda timer: timer.cancel(),
            "NoArgCallback": lambda callback: lambda *args: callback(),
            "NoObjCallback": lambda callback: lambda obj, *args: callback(*args),
        },
        "loomutils.reflect": {"ReportCurrentException": traceback.print_exc},
        "singleton": {"GetSingletons": lambda: manager_table},
        "cache.textcache": {"CTextCache": emitter("text-modified")},
        "pysource.analysis": {
            "CPySourceAnalysis": emitter("modified", "active-edit-lineno-changed")
        },
        "pysource.inferenceengine": {"__file__": __file__},
        **own_modules,
    }.items():
        package = name.rpartition(".")[0]
        if package not in ("", "pysource"):
            sys.modules.setdefault(package, ModuleType(package))
        sys.modules[name] = ModuleType(name)
        vars(sys.modules[name]).update(members)


