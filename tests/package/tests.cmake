# The built and installed files, seen from outside.
