// A program of one room, whole, and of what lies below it: what the room needs from above would be missing here.
int main() {}
