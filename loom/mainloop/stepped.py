"""A main loop in virtual time that moves only when it is told to: for tests and simulations."""

from __future__ import annotations

from .base import MainLoop

__all__ = ["SteppedMainLoop"]


class SteppedMainLoop(MainLoop):
    """Nothing runs by itself, nothing sleeps. The clock starts at `start` seconds."""

    def __init__(self, start: float = 0.0) -> None:
        super().__init__()
        self._now = start

    def now(self) -> float:
        return self._now

    def step(self) -> bool:
        """Run one idle callback. Returns false if there was none."""
        return self.idle.run_one()

    def run_idle(self, max_steps: int = 1_000_000) -> int:
        """Run idle callbacks until none is left. Returns how many calls that took.

        Raises `RuntimeError` after `max_steps`: somebody never comes to an end.
        """
        for count in range(max_steps):
            if not self.step():
                return count
        raise RuntimeError(f"idle work goes on after {max_steps} steps")

    def advance(self, seconds: float) -> None:
        """Let time pass, running timers at their due times. No idle callback runs."""
        end = self._now + seconds
        while (due := self.timers.next_due()) is not None and due <= end:
            self._now = max(self._now, due)
            self.timers.run_due(self._now)
        self._now = end
