# Installs the library, its headers and the package that find_package(VexelAlgorithm) reads.
