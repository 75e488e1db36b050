// What any program costs.
int main() { return 0; }
