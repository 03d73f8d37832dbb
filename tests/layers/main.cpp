// An empty program, for linking with one library.
int main() {}
