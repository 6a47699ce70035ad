<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/* Run before each start: seed.php DIR LOGIN [PASSWORD-FILE] */

require __DIR__ . '/bootstrap.php';

try {
    [, $directory, $login, $passwordFile] = $argv + [3 => ''];
    Seeding::run($directory, $login, $passwordFile);
} catch (\Throwable $failure) {
    fwrite(STDERR, "serve: {$failure->getMessage()}\n");
    exit(1);
}
