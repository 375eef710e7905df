"""Following a tree: what happens in the file system becomes scans.

`events` says what can happen, `inotify` hears of it from the kernel, `folders` knows which folders
are followed, `follower` turns events into work, and `session` is the whole of `loom watch`.
"""
