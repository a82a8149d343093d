// Empty: the target that has the tests' precompiled headers needs a source.
