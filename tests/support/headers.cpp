// Nothing: the target of this file is what the precompiled headers of the tests are made for.
