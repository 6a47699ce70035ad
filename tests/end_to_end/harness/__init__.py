"""What the end-to-end cases stand on: made-up machines, servers, independent models."""
