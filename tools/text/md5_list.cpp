#include "tools/text/md5_list.h"

#include "formats/md5_text.h"
#include "tools/text/text.h"

#include <iostream>

bool ReadMD5Lines(std::istream &lines, const std::string &strSource, std::vector<std::string> &vecMD5,
                  std::string &strError) {
    std::string strLine;
    for (size_t nLine = 1; std::getline(lines, strLine); ++nLine) {
        const size_t nFirst = strLine.find_first_not_of(" \t\r");
        if (nFirst == std::string::npos || strLine[nFirst] == '#') {
            continue;
        }
        const std::string strText = strLine.substr(nFirst, strLine.find_last_not_of(" \t\r") - nFirst + 1);
        if (!IsMD5Text(strText)) {
            strError = strSource + ": line " + std::to_string(nLine) + " is not an MD5 of 32 hexadecimal digits: \"" +
                       EscapeName(std::string_view(strText).substr(0, 60)) + "\"";
            return false;
        }
        vecMD5.push_back(LowerCase(strText));
    }
    if (lines.bad()) {
        strError = strSource + ": cannot be read to its end";
    }
    return !lines.bad();
}

bool ReadMD5Arguments(const std::vector<std::string> &vecArguments, std::vector<std::string> &vecMD5,
                      std::string &strError) {
    for (const std::string &strArgument : vecArguments) {
        if (strArgument == "-") {
            if (!ReadMD5Lines(std::cin, "standard input", vecMD5, strError)) {
                return false;
            }
        } else if (IsMD5Text(strArgument)) {
            vecMD5.push_back(LowerCase(strArgument));
        } else {
            strError = "not an MD5 of 32 hexadecimal digits: \"" + EscapeName(strArgument) + "\"";
            return false;
        }
    }
    return true;
}
