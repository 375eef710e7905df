for i, (j, *k) in enumerate(x): pass
else: global g, h
while (n := f()): del n, m
with a as b, (c) as d: pass
try:
    pass
except* (E, F) as e:
    raise
finally: x += 1; y @= 2
match p:
    case {"k": q, **r} if (s := 1): pass
    case [A(b=c), *_] | d.e: pass
    case _ as whole: pass
