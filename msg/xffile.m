* This group has no messages of its own in the engine module yet.
