"""Files on other machines: asked for over SSH, without ever waiting for an answer.

`requests` says what can be asked, `transport` who carries it, `server` keeps one connection a
server alive or gives it up, `files` remembers what was found, `walk` finds the Python files of a
tree. `sshtransport` is the one module that knows SSH. All but that runs on any main loop.
"""
