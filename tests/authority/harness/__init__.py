"""What the cases of the reference authority share."""
