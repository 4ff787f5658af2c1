// pbrctl, the operator's tool: entry.
int main() { return 0; }
