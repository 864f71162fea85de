// vehicle-sim: the rest of the head unit and the vehicle micro (work in progress).
int main() { return 0; }
