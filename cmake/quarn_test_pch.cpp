// Carries the precompiled GoogleTest headers that every test target reuses.
