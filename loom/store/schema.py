"""Tables of the database, as the list of steps that lead to them.

`PRAGMA user_version` is the number of steps that a database has behind it. A change of the tables
is a new step at the end of `kMigrations`; a step that was released is never edited.

files         One row a file. `scans` holds the names of the scans whose results are valid for
              `mtime_ns` and `size`, each between blanks; it is empty while the file's other rows
              are being written. `digest` is that of the file's bytes, empty if they weren't read.
              `settled` is 1 if the time was old enough to be trusted when the file was read, and
              `scanner` the version of the scanner (0 for rows from before there were versions).
              `scanned_ns` is when it was scanned, in nanoseconds since the epoch (0 if not known);
              it is for people, and nothing depends on it.
              `written` is another number each time that the row is written anew, so that a process
              can tell whether its own write is still the last one. `followed` is the number of the
              row of `followed` that holds for the file's imports, or 0.
              `imports` holds import equivalents, joined by ";".
              `error` says what was wrong with the file, and `error_lineno` where, or 0 if it
              couldn't be scanned at all. `indexed` is 1 when all its names stand in `names`.
scopes        What each scope of a file defines. `id` is the file's id times `kScopesPerFile` plus
              the index of the scope in its file, so that the scopes of a file lie together and
              need no index of their own.
added_scopes  Scopes that no whole-file scan wrote, such as instances of classes. They go when the
              file is scanned again.
definitions   The definitions of a file, packed into one text (see `definitions`).
names         Which files define a name: the index behind `find`. It may hold a file too many
              after a crash, never one too few that is `indexed`; the definitions have the last
              word.
derived       What the imports, bases and values of a file turned out to be (see `loom.derive.facts`),
              for the bytes with `digest`. It holds while "derived" stands in `files.scans`.
used_names    The names that a file uses, each between two line ends.
depends       Which derived results depend on what, by keys (see `loom.store.derived`).
depends_of    The keys of a file, eight bytes each.
exports       The digest of what other files can see of a file.
derived_version  The version of the derived scanner, in its only row.
followed      Where the imports of files led to, in a session that came to its end (see `followed`).
"""

import sqlite3
from typing import Final

__all__ = ["kApplicationId", "kMigrations", "kScopesPerFile", "kSchemaVersion", "migrate"]

# "loom" in ASCII; tells our databases from those of other programs.
kApplicationId: Final = 0x6C6F6F6D

# More scopes than a file of the greatest size that is read can hold.
kScopesPerFile: Final = 1 << 24

_kFirstTables = """
CREATE TABLE files(
  id INTEGER PRIMARY KEY,
  url TEXT NOT NULL UNIQUE,
  mtime_ns INTEGER NOT NULL,
  size INTEGER NOT NULL,
  digest BLOB NOT NULL,
  scans TEXT NOT NULL,
  error TEXT,
  error_lineno INTEGER NOT NULL,
  line_count INTEGER NOT NULL,
  definition_count INTEGER NOT NULL,
  imports BLOB NOT NULL,
  indexed INTEGER NOT NULL
) STRICT;
CREATE INDEX files_unindexed ON files(id) WHERE indexed = 0;
CREATE TABLE scopes(
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL,
  parent INTEGER NOT NULL,
  kind INTEGER NOT NULL,
  lineno INTEGER NOT NULL,
  end_lineno INTEGER NOT NULL,
  info BLOB NOT NULL
) STRICT;
CREATE TABLE added_scopes(
  file_id INTEGER NOT NULL,
  name TEXT NOT NULL,
  scan_name TEXT NOT NULL,
  disk_mtime REAL NOT NULL,
  incomplete INTEGER NOT NULL,
  does_not_exist INTEGER NOT NULL,
  info BLOB NOT NULL,
  PRIMARY KEY(file_id, name)
) STRICT, WITHOUT ROWID;
CREATE TABLE definitions(
  file_id INTEGER PRIMARY KEY,
  packed BLOB NOT NULL
) STRICT;
CREATE TABLE names(
  name TEXT NOT NULL,
  file_id INTEGER NOT NULL,
  PRIMARY KEY(name, file_id)
) STRICT, WITHOUT ROWID;
"""

_kFreshness = """
ALTER TABLE files ADD COLUMN settled INTEGER NOT NULL DEFAULT 0;
ALTER TABLE files ADD COLUMN scanner INTEGER NOT NULL DEFAULT 0;
"""

_kWhenScanned = "ALTER TABLE files ADD COLUMN scanned_ns INTEGER NOT NULL DEFAULT 0;"

_kDerivedResults = """
CREATE TABLE derived(
  file_id INTEGER PRIMARY KEY,
  digest BLOB NOT NULL,
  facts BLOB NOT NULL
) STRICT;
CREATE TABLE used_names(
  file_id INTEGER PRIMARY KEY,
  names BLOB NOT NULL
) STRICT;
CREATE TABLE depends(
  key INTEGER NOT NULL,
  file_id INTEGER NOT NULL,
  PRIMARY KEY(key, file_id)
) STRICT, WITHOUT ROWID;
CREATE TABLE depends_of(
  file_id INTEGER PRIMARY KEY,
  keys BLOB NOT NULL
) STRICT;
CREATE TABLE exports(
  file_id INTEGER PRIMARY KEY,
  digest BLOB NOT NULL
) STRICT;
CREATE TABLE derived_version(
  id INTEGER PRIMARY KEY CHECK(id = 0),
  version INTEGER NOT NULL
) STRICT;
"""

_kFollowed = """
ALTER TABLE files ADD COLUMN followed INTEGER NOT NULL DEFAULT 0;
CREATE TABLE followed(
  key BLOB PRIMARY KEY,
  number INTEGER NOT NULL,
  folders BLOB NOT NULL,
  targets BLOB NOT NULL
) STRICT;
"""

_kWrites = "ALTER TABLE files ADD COLUMN written INTEGER NOT NULL DEFAULT 0;"

# Each step is a script of statements without transaction control.
kMigrations: Final[tuple[str, ...]] = (
    _kFirstTables,
    _kFreshness,
    _kWhenScanned,
    _kDerivedResults,
    _kWrites,
    _kFollowed,
)
kSchemaVersion: Final = len(kMigrations)


def migrate(connection: sqlite3.Connection, migrations: tuple[str, ...] = kMigrations) -> int:
    """Bring the database up to date in one transaction; returns the version it had before.

    Requires: autocommit mode, and a version that isn't above `len(migrations)`.
    Ensures: all steps that were missing are done and the version is set, or nothing is changed.
    """
    connection.execute("BEGIN IMMEDIATE")
    try:
        # Read under the lock: another process may have done the work in the meantime.
        (version,) = connection.execute("PRAGMA user_version").fetchone()
        assert isinstance(version, int)
        for script in migrations[version:]:
            for statement in _statements(script):
                connection.execute(statement)
        if version < len(migrations):
            connection.execute(f"PRAGMA application_id = {kApplicationId}")
            connection.execute(f"PRAGMA user_version = {len(migrations)}")
        connection.execute("COMMIT")
    except BaseException:
        connection.execute("ROLLBACK")
        raise
    return version


def _statements(script: str) -> list[str]:
    # `executescript` would commit the transaction that is open.
    statements = []
    rest = ""
    for piece in script.split(";"):
        rest += piece + ";"
        if sqlite3.complete_statement(rest):
            statements.append(rest)
            rest = ""
    return [s for s in statements if s.strip(" \n;")]
