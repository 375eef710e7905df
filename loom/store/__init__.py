"""The database of scan results: SQLite by the standard library.

`database` opens it and sets a useless one aside, `schema` holds the tables and migrations,
`writer` writes results in transactions of bounded length with the help of `nameindex`, `lookup`
answers the info cache, and `queries` answers the command line over a read-only connection.
`records` and `definitions` hold the shapes that pass between them.

Nothing here knows the scheduler, locations or scanners: files are named by their URL.
"""
