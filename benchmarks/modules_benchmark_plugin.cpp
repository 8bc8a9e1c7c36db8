// Loaded a hundred times under a hundred names.
extern "C" int modulesBenchmarkPlugin() {
    return 0;
}
