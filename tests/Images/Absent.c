// Imported by Dependent.dll, and kept where no search finds it.
__declspec (dllexport) int Absent (void)
{
    return 1;
}
