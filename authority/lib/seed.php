<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/*
 * Prepares a data directory: tables, templates, pools and an administrator.
 * Run before each start: seed.php DIR LOGIN [PASSWORD-FILE]
 */

require __DIR__ . '/bootstrap.php';

const POOLS = [1 => 'Primary pool', 2 => 'Archive pool (Ghent|Lyon)'];
const TEMPLATES = [1, 2, 3, 6];
const KEY = 'passwd=';

/** The path of the directory's own password file, made with a fresh password when it is missing. */
function ownPasswordFile(string $directory): string
{
    $path = "$directory/admin.passwd";
    if (!file_exists($path)) {
        umask(0177);
        file_put_contents($path, KEY . Accounts::freshPassword() . "\n");
    }
    return $path;
}

/** The password in a file: what stands behind the first "passwd=" of its first line that has one. */
function passwordIn(string $path): string
{
    // Not file(): it would drop a carriage return, which clients send as part of the password.
    foreach (explode("\n", file_get_contents($path)) as $line) {
        $found = strstr($line, KEY);
        if ($found !== false) {
            return substr($found, strlen(KEY));
        }
    }
    throw new \RuntimeException("$path has no line with \"" . KEY . '"');
}

function seed(string $directory, string $login, string $passwordFile): void
{
    $password = passwordIn($passwordFile !== '' ? $passwordFile : ownPasswordFile($directory));
    $store = Store::create($directory);
    $shipped = static fn (string $name): string => file_get_contents(__DIR__ . "/../$name");
    foreach (TEMPLATES as $id) {
        $store->saveTemplate($id, $shipped("templates/$id.cfg"));
    }
    foreach (POOLS as $id => $name) {
        $store->savePool($id, $name, $shipped("pools/$id.recommended"), $shipped("pools/$id.current"));
    }
    (new Accounts($store))->seedAdministrator($login, $password);
}

try {
    [, $directory, $login, $passwordFile] = $argv + [3 => ''];
    seed($directory, $login, $passwordFile);
} catch (\Throwable $failure) {
    fwrite(STDERR, "serve: {$failure->getMessage()}\n");
    exit(1);
}
