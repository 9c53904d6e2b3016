"""Shows what a recording of the daemon says (docs/recording.md)."""
