"""A Corvane service for one machine: real HTTPS, real signatures, a real database. Not the real service."""
