"""The reference paper-library site that Orvane opens on a fresh machine."""
