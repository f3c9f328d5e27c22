// Scene.cpp: building the scenes and reading picture files.
#include "Scene.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

namespace vqxsim {
namespace {

constexpr uint8_t kLabelWhite = 230;  // reflectance 0.9
constexpr uint8_t kInk = 13;          // reflectance 0.05

std::shared_ptr<Scene> blank(unsigned width, unsigned height)
{
    auto scene = std::make_shared<Scene>();
    scene->width = width;
    scene->height = height;
    scene->reflectance.resize(size_t(width) * height);
    return scene;
}

// The darker surface behind a label: about 0.25, a little lighter at the top.
void fill_background(Scene& scene)
{
    for (unsigned y = 0; y < scene.height; ++y) {
        auto value = static_cast<uint8_t>(76 - 24 * y / std::max(1u, scene.height - 1));
        std::fill_n(&scene.reflectance[size_t(y) * scene.width], scene.width, value);
    }
}

void fill_rect(Scene& scene, unsigned x0, unsigned y0, unsigned w, unsigned h, uint8_t value)
{
    for (unsigned y = y0; y < y0 + h && y < scene.height; ++y)
        for (unsigned x = x0; x < x0 + w && x < scene.width; ++x)
            scene.reflectance[size_t(y) * scene.width + x] = value;
}

bool draw_barcode(Scene& scene, const Config& config, std::string* error)
{
    bool qr = config.format == Barcode_format::qr_code;
    ZXing::MultiFormatWriter writer(qr ? ZXing::BarcodeFormat::QRCode : ZXing::BarcodeFormat::Code128);
    writer.setMargin(0);
    ZXing::BitMatrix symbol;
    try {
        // Smallest rendering first: one pixel a module, to learn the module count.
        symbol = writer.encode(config.text, 1, 1);
    } catch (const std::exception& e) {
        if (error)
            *error = std::string("cannot encode the barcode text: ") + e.what();
        return false;
    }
    unsigned modules_w = unsigned(symbol.width());
    unsigned modules_h = unsigned(symbol.height());
    unsigned quiet = qr ? 4 : 10;
    // The label takes at most 70% of the width and 60% of the height.
    unsigned scale = std::min(scene.width * 7 / 10 / (modules_w + 2 * quiet),
                              qr ? scene.height * 6 / 10 / (modules_h + 2 * quiet) : 8u);
    if (scale == 0) {
        if (error)
            *error = "the barcode text is too long for the image";
        return false;
    }
    unsigned symbol_w = modules_w * scale;
    unsigned symbol_h = qr ? modules_h * scale : std::min(scene.height * 2 / 5, symbol_w / 2);
    unsigned label_w = symbol_w + 2 * quiet * scale;
    unsigned label_h = symbol_h + 2 * (qr ? quiet * scale : scene.height / 12);
    unsigned label_x = (scene.width - label_w) / 2;
    unsigned label_y = (scene.height - label_h) / 2;
    fill_rect(scene, label_x, label_y, label_w, label_h, kLabelWhite);
    unsigned sx = (scene.width - symbol_w) / 2;
    unsigned sy = (scene.height - symbol_h) / 2;
    for (unsigned y = 0; y < symbol_h; ++y) {
        unsigned my = qr ? y / scale : 0;
        for (unsigned x = 0; x < symbol_w; ++x)
            if (symbol.get(int(x / scale), int(my)))
                scene.reflectance[size_t(sy + y) * scene.width + sx + x] = kInk;
    }
    return true;
}

// Nearest-neighbour fit of a picture, centred over the background.
void draw_picture(Scene& scene, const Grey_image& image)
{
    double fx = double(scene.width) / image.width;
    double fy = double(scene.height) / image.height;
    double f = std::min(fx, fy);
    auto w = unsigned(image.width * f);
    auto h = unsigned(image.height * f);
    unsigned x0 = (scene.width - w) / 2;
    unsigned y0 = (scene.height - h) / 2;
    for (unsigned y = 0; y < h; ++y) {
        unsigned iy = std::min(image.height - 1, unsigned(y / f));
        for (unsigned x = 0; x < w; ++x) {
            unsigned ix = std::min(image.width - 1, unsigned(x / f));
            scene.reflectance[size_t(y0 + y) * scene.width + x0 + x] = image.pixels[size_t(iy) * image.width + ix];
        }
    }
}

// Next PGM header token, skipping blanks and comments.
bool pgm_token(std::istream& in, std::string& token)
{
    token.clear();
    int c;
    while ((c = in.get()) != EOF) {
        if (c == '#') {
            while ((c = in.get()) != EOF && c != '\n') {}
        } else if (!std::isspace(c)) {
            token.push_back(char(c));
            break;
        }
    }
    while ((c = in.peek()) != EOF && !std::isspace(c) && c != '#')
        token.push_back(char(in.get()));
    return !token.empty();
}

bool read_pgm(const std::string& path, Grey_image& out, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    std::string magic, tw, th, tm;
    if (!in || !pgm_token(in, magic) || !pgm_token(in, tw) || !pgm_token(in, th) || !pgm_token(in, tm) ||
        (magic != "P2" && magic != "P5")) {
        if (error)
            *error = path + ": not a PGM file";
        return false;
    }
    unsigned long w = std::strtoul(tw.c_str(), nullptr, 10), h = std::strtoul(th.c_str(), nullptr, 10);
    unsigned long maxval = std::strtoul(tm.c_str(), nullptr, 10);
    if (w == 0 || h == 0 || w > 16384 || h > 16384 || maxval == 0 || maxval > 65535) {
        if (error)
            *error = path + ": unsupported PGM size or depth";
        return false;
    }
    out.width = unsigned(w);
    out.height = unsigned(h);
    out.pixels.resize(w * h);
    if (magic == "P5")
        in.get();  // the single blank after the header
    for (size_t i = 0; i < out.pixels.size(); ++i) {
        unsigned long v = 0;
        if (magic == "P2") {
            std::string t;
            if (!pgm_token(in, t))
                break;
            v = std::strtoul(t.c_str(), nullptr, 10);
        } else if (maxval < 256) {
            v = static_cast<unsigned char>(in.get());
        } else {
            v = static_cast<unsigned char>(in.get()) << 8;
            v |= static_cast<unsigned char>(in.get());
        }
        if (!in) {
            if (error)
                *error = path + ": PGM data ends early";
            return false;
        }
        out.pixels[i] = static_cast<uint8_t>(std::min(maxval, v) * 255 / maxval);
    }
    return true;
}

bool read_png(const std::string& path, Grey_image& out, std::string* error)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        if (error)
            *error = path + ": " + image.message;
        return false;
    }
    image.format = PNG_FORMAT_GRAY;
    out.width = image.width;
    out.height = image.height;
    out.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.pixels.data(), 0, nullptr)) {
        if (error)
            *error = path + ": " + image.message;
        png_image_free(&image);
        return false;
    }
    return true;
}

}  // namespace

bool read_grey_image(const std::string& path, Grey_image& out, std::string* error)
{
    std::ifstream probe(path, std::ios::binary);
    char magic[4] = {};
    if (!probe.read(magic, 4)) {
        if (error)
            *error = path + ": cannot read the file";
        return false;
    }
    if (std::memcmp(magic, "\x89PNG", 4) == 0)
        return read_png(path, out, error);
    return read_pgm(path, out, error);
}

std::shared_ptr<const Scene> Scene::build(const Config& config, unsigned width, unsigned height,
                                          std::string* error)
{
    std::shared_ptr<Scene> scene = blank(width, height);
    switch (config.scene) {
    case Scene_kind::flat:
        std::fill(scene->reflectance.begin(), scene->reflectance.end(), config.flat_level);
        break;
    case Scene_kind::ramp:
        for (unsigned y = 0; y < height; ++y)
            for (unsigned x = 0; x < width; ++x)
                scene->reflectance[size_t(y) * width + x] = static_cast<uint8_t>(x * 255 / std::max(1u, width - 1));
        break;
    case Scene_kind::image_file: {
        Grey_image picture;
        if (!read_grey_image(config.image_file, picture, error))
            return nullptr;
        fill_background(*scene);
        draw_picture(*scene, picture);
        break;
    }
    case Scene_kind::barcode:
        fill_background(*scene);
        if (!draw_barcode(*scene, config, error))
            return nullptr;
        break;
    }
    return scene;
}

}  // namespace vqxsim
