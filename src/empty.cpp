// Stands in for a layer that has no sources yet, and is the shared library's own unit:
// everything else comes from the layer archives.
