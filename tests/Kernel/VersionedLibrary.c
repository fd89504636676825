// A library that exists for its version resource alone.
int VersionedLibraryMarker;
