"""Short stories that `./demo` tells: each a function told(stage), with a title and a few sentences."""
