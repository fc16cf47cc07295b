// Writes the seeds of the harnesses of files: make-corpus FOLDER. Each is a small input out of
// which the harness makes a sound file of another kind, or one with a fault in a place of its own.
int main() {
    return 0;
}
