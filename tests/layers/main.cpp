// A program of nothing but the library it is linked with.
int main() {}
