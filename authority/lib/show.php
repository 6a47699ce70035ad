<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/* Prints the store as tables: show.php DEFAULT-DIR [--data DIR] [SECTION] */

require __DIR__ . '/bootstrap.php';

const USAGE = "Usage: show [--data DIR] [accounts|agents|pools|templates|dataselections|requests]\n";

/** Section => the query for its table. Hashes of passwords stay where they are. */
const TABLES = [
    'accounts' => "SELECT login, CASE WHEN agent_id IS NULL THEN 'administrator' ELSE 'agent' END AS role, agent_id
                   FROM accounts ORDER BY agent_id, login",
    'agents' => 'SELECT * FROM agents ORDER BY id',
    'pools' => 'SELECT id, name FROM pools ORDER BY id',
    'templates' => "SELECT id, length(content) - length(replace(content, char(10), '')) AS lines
                    FROM templates ORDER BY id",
    'dataselections' => 'SELECT * FROM dataselections ORDER BY id',
    'requests' => 'SELECT * FROM requests ORDER BY id',
];

/** Section => the query for the longer texts of its rows, each with a title. */
const TEXTS = [
    'pools' => "SELECT 'recommended routing table of pool ' || id AS title, recommended_rt AS content, id FROM pools
                UNION ALL SELECT 'current routing table of pool ' || id, current_rt, id FROM pools
                ORDER BY id, title DESC",
    'templates' => "SELECT 'template ' || id AS title, content FROM templates ORDER BY id",
];

/** Rows of equal keys as aligned columns; control characters in values are shown as escapes. */
function table(array $rows): string
{
    if ($rows === []) {
        return "(none)\n";
    }
    $cells = array_map(static fn (array $row): array => array_map(printable(...), array_values($row)), $rows);
    array_unshift($cells, array_keys($rows[0]));
    $widest = static fn (int $column): int => max(array_map(width(...), array_column($cells, $column)));
    $widths = array_map($widest, array_keys($cells[0]));
    $rule = array_map(static fn (int $width): string => str_repeat('-', $width), $widths);
    array_splice($cells, 1, 0, [$rule]);
    return implode('', array_map(static fn (array $line): string => aligned($line, $widths), $cells));
}

function aligned(array $line, array $widths): string
{
    $pad = static fn (string $cell, int $width): string => $cell . str_repeat(' ', $width - width($cell));
    return rtrim(implode('  ', array_map($pad, $line, $widths))) . "\n";
}

function width(string $cell): int
{
    return (int) preg_match_all('/./su', $cell);
}

function printable(int|string|null $value): string
{
    return str_replace('\\x7c', '|', Answer::escape((string) $value));
}

/** A longer text, its lines set in. */
function text(array $row): string
{
    $lines = explode("\n", rtrim($row['content'], "\n"));
    $shown = array_map(static fn (string $l): string => rtrim('    ' . strtr($l, ["\r" => '\\r'])) . "\n", $lines);
    return "\n{$row['title']}:\n" . implode('', $shown);
}

function show(Store $store, array $sections): void
{
    foreach ($sections as $i => $section) {
        echo $i > 0 ? "\n" : '', "== $section ==\n", table($store->rows(TABLES[$section]));
        $texts = isset(TEXTS[$section]) ? $store->rows(TEXTS[$section]) : [];
        echo implode('', array_map(text(...), $texts));
    }
}

/** @return array{string, list<string>} data directory and sections */
function arguments(array $arguments): array
{
    $directory = array_shift($arguments);
    if (($arguments[0] ?? '') === '--data' && isset($arguments[1])) {
        [, $directory] = array_splice($arguments, 0, 2);
    }
    if (count($arguments) > 1 || array_diff($arguments, array_keys(TABLES)) !== []) {
        fwrite(STDERR, USAGE);
        exit(2);
    }
    return [$directory, $arguments ?: array_keys(TABLES)];
}

[$directory, $sections] = arguments(array_slice($argv, 1));
try {
    show(Store::open($directory, true), $sections);
} catch (\PDOException $failure) {
    fwrite(STDERR, "show: cannot read $directory: {$failure->getMessage()}\n");
    exit(1);
}
