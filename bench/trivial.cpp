// Linked with the libraries of velkctl and doing nothing: the measure for velkctl's own start and memory.
int main() { return 0; }
