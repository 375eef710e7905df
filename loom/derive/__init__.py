"""The derived stage: what the names of a file mean in other files, and who refers to what."""
