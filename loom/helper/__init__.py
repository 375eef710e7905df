"""Scanning of whole files in processes of their own.

`process` is what a helper process runs, `engine` its host; `support` starts helpers for an app and
follows their lives; `pool` is the proxy that the scheduler calls: it deals work to the helpers and
stores what they find. docs/helper.md tells the protocol, the life cycle and the limits.
"""
