// Process entry.
int main() { return 0; }
