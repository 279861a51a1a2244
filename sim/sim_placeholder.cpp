// The emulator library; its parts live beside this file.
namespace trovsim {
int LinkAnchor() { return 0; }
}
