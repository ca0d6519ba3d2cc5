"""What a person drives the router and its cloud with: above both, and known to neither."""
