// Filled in with its slots.
