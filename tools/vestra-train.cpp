// vestra-train: trains the 2 x 256, 32, 32, 1 network on self-play records (see
// tools/TRAINING.md) and writes a resumable checkpoint and the quantised image.
//
//   vestra-train --out PREFIX [options] DATA_FILE...
//     --epochs N        passes over the training records (default 10); with 0 the start
//                       net is scored on the held-out records and written as PREFIX.nnue
//     --batch N         records per optimiser step (default 4096)
//     --lr X            Adam rate (default 0.002), times --lr-decay after each epoch
//     --lr-decay X      (default 0.85)
//     --lr-end X        instead of --lr-decay: the rate falls in a straight line, step by
//                       step, from --lr at the first step of epoch 1 to X at the last
//                       step of epoch --epochs (a resumed run picks the line up again)
//     --lambda X        weight of the search score against the result (default 0.7)
//     --scale X         internal units per logit of the sigmoid (default 340)
//     --val X           share of each file, its tail, held out (default 0.05)
//     --threads N       (default 2)
//     --seed N          initial weights and shuffling (default 1)
//     --init FILE       start from a checkpoint's net or an image instead of random weights
//     --resume          continue from PREFIX.ckpt (weights, moments, epoch)
//     --dither          with --init IMAGE: spread every value over its rounding cell (the
//                       image stays the same), so that small rates move it as they
//                       would move a checkpoint
//     --no-qat          train the dense layers without their image rounding
//     --row-lr X        rate of the king-relative rows against the shared ones (default 0.1)
//     --shared-lr X     rate of the shared rows against the base rate (default 1)
//     --shared-anchor X pull the shared rows back towards their start, X times their
//                       rate a step (default 0, none); a resumed run's start is where
//                       it resumes
//     --row-anchor X    the same pull for the king-relative rows, X times their rate
//     --max N           use at most N records of each file
//     --mirror          show records without castling rights mirrored half the time
//     --held-out FILE   a data file held out whole, in place of the tails of the others
//                       (--val 0 then), so that runs on more or fewer records of the
//                       same games are scored on the same positions (repeatable)
//     --score-scale X   multiply the search scores of the data files after it by X (until
//                       the next --score-scale), to train records played at another
//                       evaluation scale alongside the net's own
//     --every K         train on every Kth record of the data files after it (until the
//                       next --every; the held-out tail is cut first and kept whole), so
//                       that a generation that recorded every move weighs in by its
//                       games rather than its records
//
// Writes PREFIX.ckpt and PREFIX.nnue after every epoch (through a temporary file, so an
// interruption leaves the last complete epoch behind), and PREFIX-best.ckpt/.nnue after
// each epoch whose quantised validation loss is the lowest of the run so far.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "tools/train/trainer.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

bool save_checkpoint(const std::string& path, const Trainer& tr, int epoch, float lr) {
    const std::string tmp = path + ".tmp";
    FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f) return false;
    u32 head[2] = {CHECKPOINT_MAGIC, CHECKPOINT_VERSION};
    i64 state[2] = {tr.adam.step, epoch};
    bool ok = std::fwrite(head, sizeof head, 1, f) == 1 && net_write(f, tr.net) &&
              std::fwrite(state, sizeof state, 1, f) == 1 && std::fwrite(&lr, sizeof lr, 1, f) == 1 &&
              write_floats(f, tr.adam.m1.data(), tr.adam.m1.size()) &&
              write_floats(f, tr.adam.v1.data(), tr.adam.v1.size()) &&
              write_floats(f, tr.adam.mf.data(), tr.adam.mf.size()) &&
              write_floats(f, tr.adam.vf.data(), tr.adam.vf.size()) &&
              std::fwrite(&tr.adam.m, sizeof tr.adam.m, 1, f) == 1 && std::fwrite(&tr.adam.v, sizeof tr.adam.v, 1, f) == 1;
    ok = std::fclose(f) == 0 && ok;
    return ok && std::rename(tmp.c_str(), path.c_str()) == 0;
}

bool load_checkpoint(const std::string& path, Trainer* tr, int* epoch, float* lr) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    u32 head[2] = {0, 0};
    i64 state[2] = {0, 0};
    bool ok = std::fread(head, sizeof head, 1, f) == 1 && head[0] == CHECKPOINT_MAGIC &&
              head[1] == CHECKPOINT_VERSION && net_read(f, &tr->net) && std::fread(state, sizeof state, 1, f) == 1 &&
              std::fread(lr, sizeof *lr, 1, f) == 1 && read_floats(f, tr->adam.m1.data(), tr->adam.m1.size()) &&
              read_floats(f, tr->adam.v1.data(), tr->adam.v1.size()) &&
              read_floats(f, tr->adam.mf.data(), tr->adam.mf.size()) &&
              read_floats(f, tr->adam.vf.data(), tr->adam.vf.size()) &&
              std::fread(&tr->adam.m, sizeof tr->adam.m, 1, f) == 1 && std::fread(&tr->adam.v, sizeof tr->adam.v, 1, f) == 1;
    std::fclose(f);
    tr->adam.step = state[0];
    *epoch = int(state[1]);
    return ok;
}

bool save_image(const std::string& path, const FloatNet& net) {
    NetworkImage* image = network_alloc();
    if (!image) return false;
    net_to_image(net, image);
    const std::string tmp = path + ".tmp";
    bool ok = network_write_file(tmp.c_str(), image) && std::rename(tmp.c_str(), path.c_str()) == 0;
    network_free(image);
    return ok;
}

void usage() {
    std::fprintf(stderr,
                 "usage: vestra-train --out PREFIX [--epochs N] [--batch N] [--lr X] [--lr-decay X] [--lr-end X]\n"
                 "                    [--lambda X] [--scale X] [--val X] [--threads N] [--seed N] [--init FILE]\n"
                 "                    [--resume] [--dither] [--no-qat] [--row-lr X] [--shared-lr X] [--max N]\n"
                 "                    [--shared-anchor X] [--row-anchor X] [--mirror] [--score-scale X]\n"
                 "                    [--every K] [--held-out FILE] DATA_FILE...\n");
}

}  // namespace

int main(int argc, char** argv) {
    TrainConfig config;
    std::string out, init;
    int epochs = 10, batch = 4096;
    float lr_decay = 0.85f, val_share = 0.05f;
    float lr_end = -1;  // below zero: no straight-line schedule
    u64 seed = 1;
    bool resume = false, dither = false;
    size_t max_per_file = SIZE_MAX;
    float score_scale = 1;
    int every = 1;
    struct DataFile {
        std::string path;
        float score_scale;
        bool held_out;
        int every;
    };
    std::vector<DataFile> files;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has = i + 1 < argc;
        if (a == "--out" && has) out = argv[++i];
        else if (a == "--epochs" && has) epochs = std::atoi(argv[++i]);
        else if (a == "--batch" && has) batch = std::max(1, std::atoi(argv[++i]));
        else if (a == "--lr" && has) config.lr = std::strtof(argv[++i], nullptr);
        else if (a == "--lr-decay" && has) lr_decay = std::strtof(argv[++i], nullptr);
        else if (a == "--lr-end" && has) lr_end = std::max(0.0f, std::strtof(argv[++i], nullptr));
        else if (a == "--lambda" && has) config.lambda = std::strtof(argv[++i], nullptr);
        else if (a == "--scale" && has) config.scale = std::max(1.0f, std::strtof(argv[++i], nullptr));
        else if (a == "--val" && has) val_share = std::clamp(std::strtof(argv[++i], nullptr), 0.0f, 0.5f);
        else if (a == "--threads" && has) config.threads = std::clamp(std::atoi(argv[++i]), 1, 64);
        else if (a == "--seed" && has) seed = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--init" && has) init = argv[++i];
        else if (a == "--resume") resume = true;
        else if (a == "--dither") dither = true;
        else if (a == "--no-qat") config.quantise_aware = false;
        else if (a == "--row-lr" && has) config.row_lr_factor = std::strtof(argv[++i], nullptr);
        else if (a == "--shared-lr" && has) config.shared_lr_factor = std::strtof(argv[++i], nullptr);
        else if (a == "--shared-anchor" && has) config.shared_anchor = std::max(0.0f, std::strtof(argv[++i], nullptr));
        else if (a == "--row-anchor" && has) config.row_anchor = std::max(0.0f, std::strtof(argv[++i], nullptr));
        else if (a == "--mirror") config.mirror = true;
        else if (a == "--max" && has) max_per_file = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--score-scale" && has) score_scale = std::strtof(argv[++i], nullptr);
        else if (a == "--every" && has) every = std::max(1, std::atoi(argv[++i]));
        else if (a == "--held-out" && has) files.push_back({argv[++i], score_scale, true, 1});
        else if (!a.empty() && a[0] != '-') files.push_back({a, score_scale, false, every});
        else {
            usage();
            return 2;
        }
    }
    if (out.empty() || files.empty()) {
        usage();
        return 2;
    }

    // The tail of every file is held out: files are whole games in order, so the
    // validation records come from games the training never sees.
    std::vector<TrainRecord> train, valid;
    const bool whole_files = std::any_of(files.begin(), files.end(), [](const DataFile& d) { return d.held_out; });
    for (const DataFile& file : files) {
        std::vector<TrainRecord> part;
        if (!records_load(file.path.c_str(), &part)) {
            std::fprintf(stderr, "cannot read %s\n", file.path.c_str());
            return 1;
        }
        if (part.size() > max_per_file) part.resize(max_per_file);
        if (file.score_scale != 1) records_scale_scores(&part, file.score_scale);
        const size_t held = file.held_out ? part.size() : whole_files ? 0 : size_t(double(part.size()) * val_share);
        for (size_t i = 0; i + held < part.size(); i += size_t(file.every)) train.push_back(part[i]);
        valid.insert(valid.end(), part.end() - long(held), part.end());
    }
    std::printf("records: %zu training, %zu validation, from %zu files\n", train.size(), valid.size(), files.size());
    if (train.empty()) return 1;

    FloatNet net;
    Trainer tr(net, config);
    int first_epoch = 1;
    const std::string ckpt = out + ".ckpt", image_path = out + ".nnue";
    if (resume) {
        float lr = config.lr;
        int done = 0;
        if (!load_checkpoint(ckpt, &tr, &done, &lr)) {
            std::fprintf(stderr, "cannot resume from %s\n", ckpt.c_str());
            return 1;
        }
        if (lr_end < 0) tr.config.lr = lr;  // the line is drawn from --lr, not the saved rate
        first_epoch = done + 1;
        std::printf("resumed after epoch %d, step %ld, lr %g\n", done, tr.adam.step, double(lr));
    } else if (!init.empty() && checkpoint_read_net(init.c_str(), &net)) {
        std::printf("weights from checkpoint %s\n", init.c_str());
    } else if (!init.empty()) {
        NetworkImage* image = network_alloc();
        if (!image || !network_read_file(init.c_str(), image)) {
            std::fprintf(stderr, "cannot read image %s\n", init.c_str());
            return 1;
        }
        net_from_image(image, &net);
        network_free(image);
        std::printf("weights from image %s, %d unused neurons switched on\n", init.c_str(),
                    net_revive_unused(&net, seed));
        if (dither) std::printf("%ld values spread over their rounding cells\n", net_dither(&net, seed));
    } else {
        net_init_random(&net, seed);
    }

    std::printf("validation loss at start: %.6f\n", evaluate_loss(net, tr.dense(), tr.config, valid, config.threads));
    std::mt19937_64 rng(seed * 0x9e3779b97f4a7c15ULL + u64(first_epoch));
    std::vector<u32> order(train.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = u32(i);
    std::vector<const TrainRecord*> batch_ptr(static_cast<size_t>(batch));
    // A warm start from an image puts every weight on the image's grid, and a constant
    // small rate may never move a first-layer value by the half step that changes its
    // rounding; a larger rate that falls to nearly nothing moves the weights and still
    // ends on a settled net rather than a noisy one.
    const float lr_start = config.lr;
    const size_t steps_per_epoch = (order.size() + size_t(batch) - 1) / size_t(batch);
    const double total_steps = double(steps_per_epoch) * double(std::max(1, epochs));

    // The quantised net as the engine computes it (first layer, weights and activations
    // on the image's grid); the same as the plain validation loss when training is
    // quantisation-aware.
    auto quantised_loss = [&](const FloatNet& n) {
        TrainConfig exact = tr.config;
        exact.quantise_aware = true;
        round_dense(n, &tr.rounded);
        return evaluate_loss(n, tr.rounded.view(n), exact, valid, config.threads);
    };

    // A resumed run must not take its first epoch for the best when an earlier part of
    // the run already kept a better one.
    double best_loss = 1e30;
    if (resume) {
        auto kept = std::make_unique<FloatNet>(net);
        if (checkpoint_read_net((out + "-best.ckpt").c_str(), kept.get())) {
            best_loss = quantised_loss(*kept);
            std::printf("best kept so far: validation loss %.6f\n", best_loss);
        }
    }
    for (int epoch = first_epoch; epoch <= epochs; ++epoch) {
        std::shuffle(order.begin(), order.end(), rng);
        const auto start = std::chrono::steady_clock::now();
        double loss = 0, last_print = 0;
        size_t done = 0;
        for (size_t b = 0; b < order.size(); b += size_t(batch)) {
            const int n = int(std::min(order.size() - b, size_t(batch)));
            for (int i = 0; i < n; ++i) batch_ptr[size_t(i)] = &train[order[b + size_t(i)]];
            if (lr_end >= 0) {
                const double at = double(size_t(epoch - 1) * steps_per_epoch + b / size_t(batch)) /
                                  std::max(1.0, total_steps - 1);
                tr.config.lr = float(lr_start + (double(lr_end) - lr_start) * std::min(1.0, at));
            }
            loss += tr.step(batch_ptr.data(), n);
            done += size_t(n);
            const double t = seconds_since(start);
            if (t - last_print >= 5 || done == order.size()) {
                last_print = t;
                std::printf("\repoch %d  %5.1f%%  %zu samples  %.0f samples/s  train loss %.6f   ", epoch,
                            100.0 * double(done) / double(order.size()), done, double(done) / std::max(t, 1e-9),
                            loss / double(done));
                std::fflush(stdout);
            }
        }
        const double secs = seconds_since(start);
        const double vloss = evaluate_loss(net, tr.dense(), tr.config, valid, config.threads);
        const double qloss = quantised_loss(net);
        std::printf("\nepoch %d  lr %.6f  train loss %.6f  validation loss %.6f  quantised %.6f  %.1f s  %.0f samples/s\n",
                    epoch, double(tr.config.lr), loss / double(done), vloss, qloss, secs, double(done) / secs);
        if (lr_end < 0) tr.config.lr *= lr_decay;
        if (!save_checkpoint(ckpt, tr, epoch, tr.config.lr) || !save_image(image_path, net)) {
            std::fprintf(stderr, "cannot write %s or %s\n", ckpt.c_str(), image_path.c_str());
            return 1;
        }
        // The epoch with the lowest validation loss of this run is kept beside the last.
        if (qloss < best_loss) {
            best_loss = qloss;
            if (!save_checkpoint(out + "-best.ckpt", tr, epoch, tr.config.lr) || !save_image(out + "-best.nnue", net)) {
                std::fprintf(stderr, "cannot write %s-best.*\n", out.c_str());
                return 1;
            }
            std::printf("best so far: written to %s-best.nnue\n", out.c_str());
        }
        std::fflush(stdout);
    }
    if (first_epoch > epochs) {
        // Nothing trained: the start net is only scored, and written as an image, which
        // turns a checkpoint (an average of several, say) into a net the engine can load.
        if (!save_image(image_path, net)) {
            std::fprintf(stderr, "cannot write %s\n", image_path.c_str());
            return 1;
        }
        std::printf("wrote %s\n", image_path.c_str());
        return 0;
    }
    std::printf("wrote %s and %s\n", image_path.c_str(), ckpt.c_str());
    return 0;
}
