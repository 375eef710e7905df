"""What the engine sees of the main loop and the GUI toolkit."""
