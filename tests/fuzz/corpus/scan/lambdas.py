f = lambda a, b=(lambda c: c), *d: {a: b for a in d}
x: int = lambda: (y := 1)
