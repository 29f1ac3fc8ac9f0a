// Intentionally small: support sources are added beside it.
