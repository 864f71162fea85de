// Process entry of the emergency-call service (work in progress).
int main(int argc, char** argv) { return 0; }
