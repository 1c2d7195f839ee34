// Lua binding: filled in by the binding work.
