"""Stands for the inference engine's module: only its `__file__` is looked at."""
