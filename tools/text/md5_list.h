// MD5s given as arguments or one a line.
#ifndef TARN_TOOLS_TEXT_MD5_LIST_H
#define TARN_TOOLS_TEXT_MD5_LIST_H

#include <istream>
#include <string>
#include <vector>

// Adds the MD5s of a list, in lower case. Blanks around a line, a carriage return at its end, empty lines and lines
// that begin with "#" are skipped; anything else is refused: false, with the line's number in strError.
bool ReadMD5Lines(std::istream &lines, const std::string &strSource, std::vector<std::string> &vecMD5,
                  std::string &strError);

// Takes the arguments; "-" stands for a list on standard input.
bool ReadMD5Arguments(const std::vector<std::string> &vecArguments, std::vector<std::string> &vecMD5,
                      std::string &strError);

#endif
