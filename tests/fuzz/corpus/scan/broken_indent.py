if x:
y = 1
      z = 2
  w = 3
	t = 4
        u = 5
def f(
