"""The cloud's side: jobs out, acknowledgements back, uploads in."""
