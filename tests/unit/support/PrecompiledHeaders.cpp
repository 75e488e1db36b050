// A source in C++, since headers are precompiled for the languages of the target's sources.
