#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// What the fuzz targets share: one temporary standalone root per process, and a check that
// turns a broken promise into a crash that libFuzzer keeps as a finding.

// Makes the root on the first call (the library points at it from then on); it is removed
// when the process ends normally.
void FuzzRoot();

// The start of every target: the root made, and the input as text.
std::string FuzzInput(const uint8_t* data, size_t size);

// Aborts with the file, line and text when `ok` is false.
void FuzzCheck(bool ok, const char* what, const char* file, int line);
#define FUZZ_CHECK(ok) FuzzCheck((ok), #ok, __FILE__, __LINE__)

// Writes a file by logical path, making its folders; aborts when it can't, since a target that
// can't lay down its input tests nothing.
void FuzzWriteFile(const std::string& logical, const std::string& text);

// The input cut at each separator line "\n%%\n" into exactly `parts` pieces (the last ones
// empty when the input has fewer separators; the last one keeps any further separators).
std::vector<std::string> FuzzSplit(const uint8_t* data, size_t size, size_t parts);
