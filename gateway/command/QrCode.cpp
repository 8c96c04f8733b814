#include "QrCode.h"

#include <array>
#include <memory>
#include <qrencode.h>

namespace ParvaneGateway {

std::string QrCode(const std::string &text)
{
    constexpr int kMargin = 2;
    // Two rows of the code in one of the terminal: what is light has the colour of the character.
    constexpr std::array kBlocks = {" ", "▄", "▀", "█"};
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_L), QRcode_free);
    if (!code) {
        return {};
    }
    const auto isLight = [&code](int row, int column) -> unsigned {
        const bool isInside = row >= 0 && row < code->width && column >= 0 && column < code->width;
        return !isInside || (code->data[row * code->width + column] & 1U) == 0 ? 1 : 0;
    };
    std::string picture;
    for (int row = -kMargin; row < code->width + kMargin; row += 2) {
        picture += "\033[97;40m";
        for (int column = -kMargin; column < code->width + kMargin; ++column) {
            picture += kBlocks[isLight(row, column) * 2 + isLight(row + 1, column)];
        }
        picture += "\033[0m\n";
    }
    return picture;
}

} // namespace ParvaneGateway
