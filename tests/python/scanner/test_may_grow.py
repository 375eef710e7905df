"""Whether what follows may still add to a scope."""

import pytest

from loom._pyscan import SourceScanner


def grows(text: str, scope: int = 1) -> str:
    """The part of a text behind which nothing can be added to a scope, read token by token."""
    data = text.encode()
    scanner = SourceScanner(data)
    while scanner.may_grow(scope):
        before = scanner.scopes(scope, 1)
        if scanner.scan(1):
            assert not scanner.may_grow(scope)
            return text
        # A scope that was found doesn't go again.
        assert not before or scanner.scopes(scope, 1)
    found = scanner.scopes(scope, 1)
    end = scanner.position
    scanner.scan(1 << 40)
    assert scanner.scopes(scope, 1) == found
    return data[:end].decode()


@pytest.mark.parametrize(
    ("text", "end"),
    [
        ("def f():\n    x = 1\n", "    x = 1\n"),
        # The end shows when a block of another scope begins: before, a line that is indented too
        # deeply would go on with this one.
        ("def f():\n    x = 1\ny = 2\nz = 3\ndef g():\n    pass\nw = 1\n", "    pass\n"),
        ("def f(): x = 1\ny = 2\n", "def f(): x = 1\n"),
        ("def f():\n    x = 1\ny = 2\n    z = 3\nw = 4\n", "w = 4\n"),
        ("def f():\n    x = '''\ny\n'''\nz = 1\ndef g():\n    pass\n", "    pass\n"),
        ("def f():\n    x = (1,\n2)\ndef g():\n    pass\na = 1\n", "    pass\n"),
        ("def f():\n    def g():\n        pass\n    x = 1\n", "    x = 1\n"),
    ],
)
def test_end_of_a_scope(text: str, end: str) -> None:
    read = grows(text)
    assert text.startswith(read)
    assert read.rstrip("\n").endswith(end.rstrip("\n"))


def test_scope_that_was_not_found_may_still_come() -> None:
    scanner = SourceScanner(b"x = 1\ndef f(): pass\n")
    assert scanner.may_grow(0) and scanner.may_grow(1) and scanner.may_grow(10**18)
    assert scanner.scan(1 << 40)
    assert not any(map(scanner.may_grow, (0, 1, 2, 10**9)))


def test_negative_index_is_refused() -> None:
    scanner = SourceScanner(b"x = 1\n")
    with pytest.raises(ValueError, match="scope must not be negative"):
        scanner.may_grow(-1)
    with pytest.raises(TypeError):
        scanner.may_grow("f")  # type: ignore[arg-type]
