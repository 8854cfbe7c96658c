// Exists so that the tests' precompiled header is built once.
