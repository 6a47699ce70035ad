<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/* Prints the store as tables: show.php DEFAULT-DIR [--data DIR] [SECTION] */

require __DIR__ . '/bootstrap.php';

[, $directory] = $argv;
$sections = array_slice($argv, 2);
if (($sections[0] ?? '') === '--data' && isset($sections[1])) {
    [, $directory] = array_splice($sections, 0, 2);
}
$known = array_keys(Listing::TABLES);
if (count($sections) > 1 || array_diff($sections, $known) !== []) {
    fwrite(STDERR, 'Usage: show [--data DIR] [' . implode('|', $known) . "]\n");
    exit(2);
}
try {
    Listing::print(Store::open($directory, true), $sections ?: $known);
} catch (\PDOException $failure) {
    fwrite(STDERR, "show: cannot read $directory: {$failure->getMessage()}\n");
    exit(1);
} catch (\RuntimeException $failure) {
    fwrite(STDERR, "show: {$failure->getMessage()}\n");
    exit(1);
}
