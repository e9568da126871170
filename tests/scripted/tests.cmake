# The library on a scripted base library.
