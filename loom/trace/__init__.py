"""What happened in a run, and when: for Chrome's trace viewer, and as a page of its own.

`recorder` collects events, `observe` listens to a host, `page` makes the page. Nothing here runs
unless `--trace` or `--report` is given.
"""
