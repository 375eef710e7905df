"""The contestants, each in a process of its own.

    contestants.py CONTESTANT INPUT OUTPUT

INPUT is a JSON file with the uses and the contestant's settings, OUTPUT gets the answers and times.
"""

import gc
import json
import sys
import time
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent
sys.path.append(str(_HERE.parents[1]))  # what is installed comes first


def ask_jedi(task: dict[str, Any]) -> dict[str, Any]:
    """Every use once, `rounds` times over; a script is made for each, as an editor does."""
    import jedi

    jedi.settings.cache_directory = task["cache"]
    project = jedi.Project(task["project"], smart_sys_path=False, load_unsafe_extensions=False)
    rounds = []
    answers: list[Any] = []
    for _ in range(task["rounds"]):
        times = []
        answers = []
        for use in task["uses"]:
            start = time.perf_counter()
            try:
                script = jedi.Script(path=use["path"], project=project)
                found = script.goto(use["line"], use["column"], follow_imports=True)
                answer = [
                    {
                        "path": str(name.module_path) if name.module_path else "",
                        "line": name.line or 0,
                        "column": name.column or 0,
                        "name": name.name,
                        "kind": name.type,
                    }
                    for name in found
                ]
            except Exception as error:  # its failures are its answer
                answer = [{"failure": type(error).__name__}]
            times.append(time.perf_counter() - start)
            answers.append(answer)
        rounds.append(times)
    return {"answers": answers, "rounds": rounds}


def ask_loom(task: dict[str, Any]) -> dict[str, Any]:
    """Every use once, `rounds` times over, each a question of its own with the deadline."""
    from loom.bootstrap import ensure_host_path

    ensure_host_path()
    from loombase.location import CLocalFileLocation
    from pysource import _fastaccess

    from loom.app import App
    from loom.infer.define import definitions_at
    from loom.mainloop.asyncio_loop import AsyncioMainLoop

    main_loop = AsyncioMainLoop()
    app = App(Path(task["db"]), main_loop)
    engine = app.ana_mgr.fInferenceEngine
    app.collect_between_slices()
    rounds = []
    answers: list[Any] = []
    overruns = []
    busy = []  # the same without the time in which others had the processor
    partial = 0
    for _ in range(task["rounds"]):
        times = []
        answers = []
        for use in task["uses"]:
            loc = CLocalFileLocation(use["path"])
            start = time.perf_counter()
            start_busy = time.process_time()
            end = _fastaccess.GetNowTime() + task["deadline"]
            context = engine.NewContext(end)
            answer = definitions_at(loc, use["line"], use["column"], context)
            overruns.append(_fastaccess.GetNowTime() - end)
            busy.append(time.process_time() - start_busy - task["deadline"])
            times.append(time.perf_counter() - start)
            partial += answer.partial
            if gc.get_count()[0] > 20_000:  # as the host does in its idle time
                gc.collect(1)
            answers.append(
                [
                    {
                        "path": getattr(place.loc, "path", place.loc.fUrl),
                        "line": place.line,
                        "column": place.column,
                        "name": place.name,
                        "kind": place.kind,
                    }
                    for place in answer.places
                ]
            )
        rounds.append(times)
    app.destroy()
    main_loop.close()
    return {
        "answers": answers,
        "rounds": rounds,
        "latest": max(overruns),
        "latest_busy": max(busy),
        "partial": partial,
    }


def main() -> None:
    contestant, given, wanted = sys.argv[1:]
    task = json.loads(Path(given).read_text())
    gc.collect()
    result = {"jedi": ask_jedi, "loom": ask_loom}[contestant](task)
    Path(wanted).write_text(json.dumps(result))


if __name__ == "__main__":
    main()
