print(f'{x=} {y = !s:^{10}} {{no}} {lambda_:=^5} {(lambda q: 1)}')
