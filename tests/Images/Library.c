// ResourceLibrary.dll and Absent.dll: an address inside a DLL for LoadedLibrary, an import for Dependent.dll.
__declspec (dllexport) int Marker (void)
{
    return 42;
}
