<<<<<<< ours
x = 1
=======
x = 2
>>>>>>> theirs
y = 3
