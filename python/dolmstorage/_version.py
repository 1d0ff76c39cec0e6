"""The version of the package, that of the library. CMake checks that the two are the same."""

VERSION = "1.1.0"
