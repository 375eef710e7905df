"""Following a tree: what happens in the file system becomes scans.

`events` says what can happen, `inotify` hears of it from the kernel, `folders` knows which folders
are followed, `notes` keeps what is still to be looked at, `follower` looks at it, and `session` is
the whole of `loom watch`.
"""
