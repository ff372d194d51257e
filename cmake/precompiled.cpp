// Carries the precompiled headers that other targets reuse; it has nothing of its own.
