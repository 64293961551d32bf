# The native library's version (its header holds the same; the build checks).
__version__ = "0.1.0"
