// Carries the tests' precompiled header; nothing else.
