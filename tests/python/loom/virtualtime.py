"""The scheduler's clock, as tests turn it."""


class Clock:
    """Virtual time in seconds. It moves by `per_look` each time that somebody looks at it."""

    def __init__(self) -> None:
        self.now = 1_000.0
        self.per_look = 0.0

    def __call__(self) -> float:
        self.now += self.per_look
        return self.now
