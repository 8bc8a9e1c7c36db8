int callThrough(int (*callback)(void)) {
    volatile long frame[FRAME_WORDS];
    frame[0] = 1;
    return callback() + (int)frame[0];
}
