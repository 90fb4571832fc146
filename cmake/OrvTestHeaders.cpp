// SPDX-License-Identifier: Apache-2.0
// A program like the tests', whose only purpose is that its precompiled header fits theirs.
int main() {}
