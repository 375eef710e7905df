"""The main loop that the host's idle work and timers run on.

`base` says what a main loop is, `queues` holds the two data structures behind it. `asyncio_loop`,
`glib_loop` and `qt_loop` run it on what a program has, `poll_loop` runs it alone, and `stepped` by
explicit steps in virtual time.
"""
