// SPDX-License-Identifier: Apache-2.0
// Draws the Mandelbrot set as text, or in grey to a file:
//
//     fractal                    # 78 columns of text
//     fractal picture.pgm 2000   # 2000 points wide
//
// A loop over the lines computes the points. Those in the middle take longest, so the
// loop has to be divided whenever threads become free. Then a scope blurs the picture in
// tiles, each a child, and a reduction finds the brightest line. The test compares all of
// it with the result of one thread.

#include <ovel_parallel.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

struct picture {
    picture(int width, int height) : width(width), height(height), light(index(0, height)) {}

    float& at(int column, int line) {
        return light[index(column, line)];
    }
    float at(int column, int line) const {
        return light[index(column, line)];
    }
    std::size_t index(int column, int line) const {
        return static_cast<std::size_t>(line) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(column);
    }

    int width;
    int height;
    std::vector<float> light;  // of each point, from 0 to 1
};

// How soon the point leaves the circle of radius 2; 0 for the set itself.
float light_of(double real, double imaginary) {
    constexpr int most = 1000;
    double x = 0, y = 0;
    for (int step = 0; step != most; ++step) {
        double const next = x * x - y * y + real;
        y = 2 * x * y + imaginary;
        x = next;
        if (x * x + y * y > 4)
            return 1 - 1 / (1 + 0.1f * static_cast<float>(step));
    }
    return 0;
}

void draw_lines(picture& drawn, int begin, int end) {
    for (int line = begin; line != end; ++line)
        for (int column = 0; column != drawn.width; ++column)
            drawn.at(column, line) =
                light_of(-2.2 + 3.2 * column / drawn.width, -1.2 + 2.4 * line / drawn.height);
}

// The mean of a point and its neighbours, for a tile.
void blur_tile(picture const& from, picture& to, int column, int line, int size) {
    for (int y = line; y != std::min(line + size, from.height); ++y)
        for (int x = column; x != std::min(column + size, from.width); ++x) {
            float sum = 0;
            for (int dy = -1; dy != 2; ++dy)
                for (int dx = -1; dx != 2; ++dx)
                    sum += from.at(std::clamp(x + dx, 0, from.width - 1),
                                   std::clamp(y + dy, 0, from.height - 1));
            to.at(x, y) = sum / 9;
        }
}

using brightest = std::pair<float, int>;  // light and line

brightest brightest_of(picture const& drawn, int begin, int end, brightest best) {
    for (int line = begin; line != end; ++line) {
        float sum = 0;
        for (int column = 0; column != drawn.width; ++column)
            sum += drawn.at(column, line);
        best = std::max(best, {sum, line});
    }
    return best;
}

struct result {
    picture drawn;
    brightest best;
};

result compute(ovel::work_group& group, int width, int height) {
    picture sharp(width, height);
    ovel::parallel_for(group, 0, height, [&](int begin, int end) { draw_lines(sharp, begin, end); },
                       {.grain = 1});

    picture soft(width, height);
    {
        constexpr int size = 64;
        ovel::task_scope tiles(group);
        for (int line = 0; line < height; line += size)
            for (int column = 0; column < width; column += size)
                tiles.run([&, line, column] { blur_tile(sharp, soft, column, line, size); });
        tiles.wait();
    }

    brightest const best = ovel::parallel_reduce(
        group, 0, height, brightest(-1, 0),
        [&](int begin, int end, brightest start) { return brightest_of(soft, begin, end, start); },
        [](brightest left, brightest right) { return std::max(left, right); });
    return {std::move(soft), best};
}

result compute_alone(int width, int height) {
    picture sharp(width, height), soft(width, height);
    draw_lines(sharp, 0, height);
    blur_tile(sharp, soft, 0, 0, std::max(width, height));
    return {soft, brightest_of(soft, 0, height, {-1, 0})};
}

bool save(picture const& drawn, char const* name) {
    std::FILE* const file = std::fopen(name, "wb");
    if (file == nullptr)
        return false;
    std::string bytes =
        "P5 " + std::to_string(drawn.width) + " " + std::to_string(drawn.height) + " 255\n";
    for (float const light : drawn.light)
        bytes += static_cast<char>(static_cast<unsigned char>(255 * light));
    bool const written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return std::fclose(file) == 0 && written;
}

void print(picture const& drawn) {
    for (int line = 0; line != drawn.height; ++line) {
        std::string text;
        for (int column = 0; column != drawn.width; ++column)
            text += " .:-=+*#%@"[static_cast<int>(9.99f * drawn.at(column, line))];
        std::puts(text.c_str());
    }
}

}  // namespace

int main(int count, char** arguments) {
    int const width = count > 2 ? std::max(std::atoi(arguments[2]), 1) : 78;
    int const height = count > 1 ? std::max(3 * width / 4, 1) : 32;
    ovel::work_group group;
    result const drawn = compute(group, width, height);
    if (count > 1) {
        if (!save(drawn.drawn, arguments[1])) {
            std::fprintf(stderr, "cannot write %s\n", arguments[1]);
            return 1;
        }
        return 0;
    }
    print(drawn.drawn);
    std::printf("brightest line: %d\n", drawn.best.second);
    result const expected = compute_alone(width, height);
    return drawn.drawn.light == expected.drawn.light && drawn.best == expected.best ? 0 : 1;
}
