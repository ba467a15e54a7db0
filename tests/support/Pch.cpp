// The precompiled header of the library's tests is built with this program, which does nothing.
int main() { return 0; }
