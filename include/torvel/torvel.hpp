#pragma once
// Everything the torvel library offers, for programs that would rather not
// pick headers one by one: the Zernike basis, pupil fitting, phase
// unwrapping, the parametric pupil record and its text file, the image file
// layer, the switch helpers, where messages go, and the sharing of cores
// that every program sets up first thing in main. The program steps of
// torvel itself are in <torvel/driver.hpp>, which is not included here.

#include <torvel/cores.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/switches.hpp>
#include <torvel/unwrap.hpp>
#include <torvel/zernike.hpp>
