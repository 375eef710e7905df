"""Asking a `loom` process that runs on a database how it gets on.

`address` says where it listens, `server` answers on its main loop, `answers` knows what to say, and
`client` asks from another process.
"""
