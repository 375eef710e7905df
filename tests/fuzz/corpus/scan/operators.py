a=b<=c!=d//e**f>>g@h
x//=1;y>>=2;z->w;q:=1;0xFfl 1e5 .5j 1_0.0_1e-3 0b1 0o7 ?$`
