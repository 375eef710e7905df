"""The `loom` command: `main` starts it, one module a command, `output` writes what they say.

Nothing here imports click, rich or the engine before it is needed.
"""
